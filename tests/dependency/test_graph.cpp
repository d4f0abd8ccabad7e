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
    void expectSameSort() {
        EXPECT_EQ(graph.noSuccessors(), matrix.noSuccessors());
        bool sorted = matrix.topologicalSort();
        EXPECT_EQ(graph.topologicalSort(), sorted);
        EXPECT_EQ(graph.getResult(), matrix.getResult());
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

// A random graph of 0 to 40 vertices, built the same way in both graphs. Acyclic graphs only
// get edges that follow a random ranking of the indices; the others also get self-edges.
// Sometimes edges are set before their vertices are added, and some edges are set twice.
void buildRandom(Pair& pair, unsigned long long n, unsigned long long capacity, bool acyclic,
                 std::mt19937& rng) {
    std::vector<unsigned long long> rank(capacity);
    std::iota(rank.begin(), rank.end(), 0ULL);
    std::shuffle(rank.begin(), rank.end(), rng);
    bool interleave = rng() % 3 == 0;
    unsigned long long edgeCount = capacity == 0 ? 0 : rng() % (3 * capacity + 1);
    std::vector<std::pair<unsigned long long, unsigned long long>> edges;
    for (unsigned long long e = 0; e < edgeCount; ++e) {
        unsigned long long from = rng() % capacity;
        unsigned long long to = rng() % capacity;
        if (acyclic) {
            if (from == to) {
                continue;
            }
            if (rank[from] > rank[to]) {
                std::swap(from, to);
            }
        } else if (rng() % 8 == 0) {
            to = from;
        }
        // Without interleaving, edges stay among the vertices that exist.
        if (!interleave && (from >= n || to >= n)) {
            continue;
        }
        edges.emplace_back(from, to);
        if (rng() % 6 == 0) {
            edges.emplace_back(from, to);
        }
    }
    std::shuffle(edges.begin(), edges.end(), rng);
    if (!interleave) {
        for (unsigned long long i = 0; i < n; ++i) {
            pair.addVertex(nameOf(i));
        }
        for (auto const& e : edges) {
            pair.addEdge(e.first, e.second);
        }
        return;
    }
    unsigned long long added = 0;
    for (auto const& e : edges) {
        if (added < n && rng() % 2 == 0) {
            pair.addVertex(nameOf(added++));
        }
        pair.addEdge(e.first, e.second);
    }
    while (added < n) {
        pair.addVertex(nameOf(added++));
    }
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

// Random graphs, acyclic or not: walks from random vertices and then the sort agree with the
// matrix graph, and a walk leaves the graph as it was.
TEST_F(GraphTest, SortAndVisitMatchMatrixOnRandomGraphs) {
    for (unsigned seed = 0; seed < 3000; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        unsigned long long n = rng() % 41;
        unsigned long long capacity = n + (rng() % 3 == 0 ? rng() % 4 : 0);
        bool acyclic = seed % 2 == 0;
        Pair p(capacity);
        buildRandom(p, n, capacity, acyclic, rng);
        unsigned walks = capacity == 0 || seed % 3 == 0 ? 0 : 1 + rng() % 5;
        for (unsigned w = 0; w < walks; ++w) {
            p.expectSameVisit(rng() % capacity);
        }
        p.expectSameSort();
        EXPECT_EQ(p.graph.noSuccessors(), kNone) << "the sort consumes the graph";
        if (acyclic && n > 0) {
            EXPECT_EQ(p.graph.getResult().size(), n);
        }
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(GraphTest, DirectOperationsMatchMatrix) {
    for (unsigned seed = 0; seed < 2000; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(2000000 + seed);
        unsigned long long capacity = rng() % 16;
        Pair p(capacity);
        unsigned long long added = 0;
        unsigned steps = rng() % 120;
        for (unsigned s = 0; s < steps && !HasFailure(); ++s) {
            unsigned long long count = p.matrix.count();
            switch (rng() % 9) {
                case 0:
                case 1:
                    if (count < capacity) {
                        p.addVertex(nameOf(added++));
                    }
                    break;
                case 2:
                case 3:
                    if (capacity > 0) {
                        p.addEdge(rng() % capacity, rng() % capacity);
                    }
                    break;
                case 4:
                    if (count > 0) {
                        unsigned long long v = rng() % count;
                        p.graph.deleteVertex(v);
                        p.matrix.deleteVertex(v);
                    }
                    break;
                case 5:
                case 6:
                    if (capacity > 1) {
                        const bool row = rng() % 2 == 0;
                        unsigned long long at = rng() % (capacity - 1);
                        unsigned long long length = rng() % (capacity + 1);
                        row ? p.graph.moveRowUp(at, length) : p.graph.moveColLeft(at, length);
                        row ? p.matrix.moveRowUp(at, length) : p.matrix.moveColLeft(at, length);
                    }
                    break;
                case 7:
                    EXPECT_EQ(p.graph.noSuccessors(), p.matrix.noSuccessors()) << "step " << s;
                    break;
                case 8:
                    if (capacity > 0) {
                        unsigned long long v = rng() % capacity;
                        if (rng() % 2 == 0) {
                            p.expectSameVisit(v);
                        } else {
                            p.graph.DFS(v);
                            p.matrix.DFS(v);
                            EXPECT_EQ(p.graph.getResult(), p.matrix.getResult()) << "DFS " << v;
                        }
                    }
                    break;
            }
        }
        p.expectSameSort();
        if (HasFailure()) {
            break;
        }
    }
}
