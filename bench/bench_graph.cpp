// Times the topological sort of a random DAG with the sparse graph of the library and with the
// plain adjacency-matrix algorithm, and prints the figures.
//
//   bench_graph [vertices [edges [matrix_vertices]]]   (defaults 10000 30000 2000)

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "dependency/graph.h"
#include "tests/support/matrix_graph.h"

namespace {

struct Dag {
    unsigned long long vertices;
    std::vector<std::pair<unsigned long long, unsigned long long>> edges;
};

// Edges follow a random ranking of the vertices, so the graph is acyclic but its order has
// nothing to do with the order of addition.
Dag randomDag(unsigned long long vertices, unsigned long long edges, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::vector<unsigned long long> rank(vertices);
    std::iota(rank.begin(), rank.end(), 0ULL);
    std::shuffle(rank.begin(), rank.end(), rng);
    Dag dag{vertices, {}};
    while (vertices > 1 && dag.edges.size() < edges) {
        unsigned long long from = rng() % vertices;
        unsigned long long to = rng() % vertices;
        if (from == to) {
            continue;
        }
        if (rank[from] > rank[to]) {
            std::swap(from, to);
        }
        dag.edges.emplace_back(from, to);
    }
    return dag;
}

template <class G>
double sortSeconds(Dag const& dag, std::vector<std::string>& result) {
    auto start = std::chrono::steady_clock::now();
    G g(dag.vertices);
    for (unsigned long long i = 0; i < dag.vertices; ++i) {
        g.addVertex("pkg" + std::to_string(i));
    }
    for (auto const& e : dag.edges) {
        g.addEdge(e.first, e.second);
    }
    if (!g.topologicalSort()) {
        std::fprintf(stderr, "unexpected cycle\n");
        std::exit(1);
    }
    result = g.getResult();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return took.count();
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long long vertices = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10000;
    unsigned long long edges = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 3 * vertices;
    unsigned long long matrixVertices = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 2000;
    unsigned long long matrixEdges = matrixVertices * (vertices ? edges / vertices : 3);

    std::vector<std::string> sparseResult;
    std::vector<std::string> matrixResult;

    Dag big = randomDag(vertices, edges, 1);
    double sparseBig = sortSeconds<ZARNPackageTool::Graph>(big, sparseResult);
    std::printf("sparse graph: %llu vertices, %zu edges: %.4f s\n", vertices, big.edges.size(),
                sparseBig);

    Dag small = randomDag(matrixVertices, matrixEdges, 2);
    double sparseSmall = sortSeconds<ZARNPackageTool::Graph>(small, sparseResult);
    double matrixSmall = sortSeconds<ZARNTest::MatrixGraph>(small, matrixResult);
    std::printf("sparse graph: %llu vertices, %zu edges: %.4f s\n", matrixVertices,
                small.edges.size(), sparseSmall);
    std::printf("matrix graph: %llu vertices, %zu edges: %.4f s (%.0f MB matrix)\n", matrixVertices,
                small.edges.size(), matrixSmall, matrixVertices * matrixVertices * 8.0 / 1e6);
    std::printf("matrix / sparse at %llu vertices: %.0fx\n", matrixVertices,
                sparseSmall > 0 ? matrixSmall / sparseSmall : 0.0);
    std::printf("same order: %s\n", sparseResult == matrixResult ? "yes" : "NO");
    return sparseResult == matrixResult ? 0 : 1;
}
