#include "dependency/graph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/temproot.h"
#include "tests/support/matrix_graph.h"

using ZARNPackageTool::Graph;
using ZARNTest::MatrixGraph;

namespace {

// The graph touches no file, but its tests run under a fresh root like all others, which also
// collects the log lines of ignored calls.
class GraphTest : public TempRootTest {};

using Names = std::vector<std::string>;
constexpr unsigned long long kNone = ~0ULL;

// Applies each call to the graph under test and to the matrix graph alike.
struct Pair {
    explicit Pair(unsigned long long capacity) : graph(capacity), matrix(capacity) {}

    void addVertex(std::string const& name) {
        EXPECT_EQ(graph.addVertex(name), matrix.addVertex(name));
    }
    void addEdge(unsigned long long from, unsigned long long to) {
        graph.addEdge(from, to);
        matrix.addEdge(from, to);
    }
    // Whether the sort succeeded.
    bool expectSameSort() {
        EXPECT_EQ(graph.noSuccessors(), matrix.noSuccessors());
        bool sorted = matrix.topologicalSort();
        EXPECT_EQ(graph.topologicalSort(), sorted);
        EXPECT_EQ(graph.getResult(), matrix.getResult());
        return sorted;
    }
    void expectSameVisit(unsigned long long start) {
        graph.visit(start);
        matrix.visit(start);
        EXPECT_EQ(graph.getResult(), matrix.getResult()) << "visit from " << start;
    }

    Graph graph;
    MatrixGraph matrix;
};

std::string nameOf(unsigned long long i) {
    return "pkg" + std::to_string(i);
}

}  // namespace

// A chain far deeper than any call stack would hold, walked and sorted in full.
TEST_F(GraphTest, LongChainWalksAndSorts) {
    const unsigned long long n = 10000;
    Graph g(n);
    Names chain;
    for (unsigned long long i = 0; i < n; ++i) {
        chain.push_back(nameOf(i));
        g.addVertex(chain.back());
        if (i > 0) {
            g.addEdge(i - 1, i);
        }
    }
    g.visit(0);
    EXPECT_EQ(g.getResult(), Names(chain.rbegin(), chain.rend()));
    EXPECT_TRUE(g.topologicalSort());
    EXPECT_EQ(g.getResult(), chain);
}

TEST_F(GraphTest, OutOfRangeArgumentsAreIgnored) {
    Graph g(2);
    // Beyond the capacity C, D and E are not stored.
    for (const char* name : {"A", "B", "C", "D"}) {
        g.addVertex(name);
    }
    EXPECT_EQ(g.addVertex("E"), 2ULL);
    g.addEdge(0, 2);
    g.addEdge(5, 0);
    g.addEdge(~0ULL, ~0ULL);
    g.deleteVertex(2);
    g.deleteVertex(~0ULL);
    g.moveRowUp(1, 2);
    g.moveRowUp(~0ULL, 2);
    g.moveColLeft(1, 2);
    g.moveColLeft(~0ULL, ~0ULL);
    g.visit(2);
    EXPECT_TRUE(g.getResult().empty());
    g.visit(~0ULL);
    EXPECT_TRUE(g.getResult().empty());
    EXPECT_EQ(g.noSuccessors(), 0ULL);
    EXPECT_TRUE(g.topologicalSort());
    EXPECT_EQ(g.getResult(), (Names{"B", "A"}));
    EXPECT_TRUE(logged("Graph is full (capacity 2), vertex C not added"));
    EXPECT_TRUE(logged("Graph edge 5 -> 0 out of range"));
    EXPECT_TRUE(logged("not deleted"));
    EXPECT_TRUE(logged("not walked"));
}

// Random runs of calls, applied to the graph and to the matrix graph alike, and then the sort.
// Edges come before their vertices too, twice and to their own vertex. Half the runs only get
// edges along a random ranking of the indices and no deletions or moves, so that their sorts
// succeed; the others delete and move rows and columns.
TEST_F(GraphTest, RandomCallsMatchMatrix) {
    for (unsigned seed = 0; seed < 4000; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        const unsigned long long capacity = rng() % 41;
        const bool acyclic = seed % 2 == 0;
        std::vector<unsigned long long> rank(capacity);
        std::iota(rank.begin(), rank.end(), 0ULL);
        std::shuffle(rank.begin(), rank.end(), rng);
        Pair p(capacity);
        unsigned long long added = 0;
        const unsigned steps = rng() % 200;
        for (unsigned s = 0; s < steps && !HasFailure(); ++s) {
            const unsigned long long count = p.matrix.count();
            const unsigned long long from = capacity == 0 ? 0 : rng() % capacity;
            const unsigned long long to = capacity == 0 ? 0 : rng() % capacity;
            switch (rng() % 10) {
                case 0:
                case 1:
                case 2:
                    if (count < capacity) {
                        p.addVertex(nameOf(added++));
                    }
                    break;
                case 3:
                case 4:
                case 5:
                    if (capacity > 0 && !(acyclic && from == to)) {
                        const bool swap = acyclic && rank[from] > rank[to];
                        p.addEdge(swap ? to : from, swap ? from : to);
                    }
                    break;
                case 6:
                    if (!acyclic && count > 0) {
                        p.graph.deleteVertex(from % count);
                        p.matrix.deleteVertex(from % count);
                    }
                    break;
                case 7:
                    if (!acyclic && capacity > 1) {
                        const unsigned long long at = from % (capacity - 1);
                        const unsigned long long length = rng() % (capacity + 1);
                        const bool row = rng() % 2 == 0;
                        row ? p.graph.moveRowUp(at, length) : p.graph.moveColLeft(at, length);
                        row ? p.matrix.moveRowUp(at, length) : p.matrix.moveColLeft(at, length);
                    }
                    break;
                case 8:
                    EXPECT_EQ(p.graph.noSuccessors(), p.matrix.noSuccessors()) << "step " << s;
                    break;
                case 9:
                    if (capacity > 0 && rng() % 2 == 0) {
                        p.expectSameVisit(from);
                    } else if (capacity > 0) {
                        p.graph.DFS(from);
                        p.matrix.DFS(from);
                        EXPECT_EQ(p.graph.getResult(), p.matrix.getResult()) << "DFS " << from;
                    }
                    break;
            }
        }
        EXPECT_TRUE(p.expectSameSort() || !acyclic);
        EXPECT_EQ(p.graph.noSuccessors(), kNone) << "the sort consumes the graph";
        if (HasFailure()) {
            break;
        }
    }
}
