#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// A directed graph over package names with two traversals: a destructive topological sort that
// detects cycles, and a depth-first post-order walk from one vertex.
//
// The graph behaves as a capacity x capacity adjacency matrix whose vertices are renumbered by
// deleteVertex, but it is stored sparsely: successor and predecessor sets per vertex, and a set
// of the vertices without successors, so that a whole sort costs O((V + E) log V) instead of
// the cubic time and quadratic memory of the matrix. Entries that the matrix holds outside the
// current vertex count (edges to vertices not added yet, the rows and columns that deleteVertex
// leaves behind) are kept apart by their matrix position.
//
// Where this differs from the matrix:
// - topologicalSort doesn't keep the stale rows and columns that each of its deletions would
//   leave beyond the count; they can only be seen by a later visit or by an addVertex that
//   reuses their index, neither of which makes sense on a sorted graph. Its return value, its
//   result and the vertices left after a cycle are the same.
// - Out-of-range arguments are ignored with a log line instead of touching memory: addEdge and
//   visit with an index at or beyond the capacity, deleteVertex with an index at or beyond the
//   vertex count, moveRowUp/moveColLeft whose source row or column lies beyond the capacity.
//   Lengths beyond the capacity are cut to it.
// - addVertex beyond the capacity stores nothing and leaves the count as it is; it still returns
//   the index that the vertex would have had.
class ZARNPKG_API Graph {
public:
    explicit Graph(unsigned long long capacity);
    ~Graph();
    Graph(Graph const&) = delete;
    Graph& operator=(Graph const&) = delete;

    unsigned long long addVertex(std::string const& name);
    void addEdge(unsigned long long from, unsigned long long to);

    // The lowest vertex index without a successor among the present vertices, or all ones.
    unsigned long long noSuccessors();
    void moveRowUp(unsigned long long row, unsigned long long length);
    void moveColLeft(unsigned long long col, unsigned long long length);
    void deleteVertex(unsigned long long vertex);

    // Fills the result from its end, a vertex before those it has edges to; false on a cycle,
    // with the slots of the vertices left in the graph empty.
    bool topologicalSort();

    // Post-order walk from vertex; successors in rising index order. Marks of earlier walks
    // stay, so a second walk skips what the first reached.
    void visit(unsigned long long vertex);
    // The body of visit: appends to the result without clearing it.
    void DFS(unsigned long long vertex);

    std::vector<std::string> const& getResult() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ZARNPackageTool
