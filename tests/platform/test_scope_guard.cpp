#include <gtest/gtest.h>

#include <vector>

#include "platform/scope_guard.h"

TEST(ScopeGuardTest, RunsOnEveryExitUnlessDismissed) {
    std::vector<int> order;
    {
        ZARNUtils::ScopeGuard first([&] { order.push_back(1); });
        auto second = ZARNUtils::MakeScopeGuard([&] { order.push_back(2); });
        ZARN_SCOPE_EXIT {
            order.push_back(3);
        };
        ZARNUtils::ScopeGuard kept([&] { order.push_back(4); });
        kept.dismiss();
    }
    // Last made, first run; the dismissed one not at all.
    EXPECT_EQ(order, (std::vector<int>{3, 2, 1}));

    order.clear();
    try {
        ZARN_SCOPE_EXIT {
            order.push_back(5);
        };
        throw 1;
    } catch (int) {
        order.push_back(6);
    }
    EXPECT_EQ(order, (std::vector<int>{5, 6}));
}
