#pragma once

#include <string>
#include <vector>

namespace ZARNTest {

// The plain adjacency-matrix graph, written step by step as the graph's behaviour is described:
// capacity x capacity entries, rows and columns moved on deletion, a recursive walk. Tests
// compare ZARNPackageTool::Graph against it, and the benchmark measures it. Arguments must be in
// range: like the original, it checks nothing.
class MatrixGraph {
public:
    explicit MatrixGraph(unsigned long long capacity)
        : capacity_(capacity),
          names_(capacity),
          matrix_(capacity * capacity, 0),
          visited_(capacity, 0) {}

    MatrixGraph(MatrixGraph const&) = delete;
    MatrixGraph& operator=(MatrixGraph const&) = delete;

    unsigned long long addVertex(std::string const& name) {
        names_[count_] = name;
        return count_++;
    }

    void addEdge(unsigned long long from, unsigned long long to) { at(from, to) = 1; }

    unsigned long long noSuccessors() {
        for (unsigned long long row = 0; row < count_; ++row) {
            bool empty = true;
            for (unsigned long long col = 0; col < count_; ++col) {
                if (at(row, col) != 0) {
                    empty = false;
                    break;
                }
            }
            if (empty) {
                return row;
            }
        }
        return ~0ULL;
    }

    void moveRowUp(unsigned long long row, unsigned long long length) {
        for (unsigned long long col = 0; col < length; ++col) {
            at(row, col) = at(row + 1, col);
        }
    }

    void moveColLeft(unsigned long long col, unsigned long long length) {
        for (unsigned long long row = 0; row < length; ++row) {
            at(row, col) = at(row, col + 1);
        }
    }

    void deleteVertex(unsigned long long vertex) {
        unsigned long long n = count_;
        if (vertex != n - 1) {
            for (unsigned long long j = vertex; j + 1 < n; ++j) {
                names_[j] = names_[j + 1];
            }
            for (unsigned long long row = vertex; row + 1 < n; ++row) {
                moveRowUp(row, n);
            }
            for (unsigned long long col = vertex; col + 1 < n; ++col) {
                moveColLeft(col, n - 1);
            }
        }
        count_ = n - 1;
    }

    bool topologicalSort() {
        result_.clear();
        result_.resize(count_);
        while (count_ != 0) {
            unsigned long long v = noSuccessors();
            if (v == ~0ULL) {
                return false;
            }
            result_[count_ - 1] = names_[v];
            deleteVertex(v);
        }
        return true;
    }

    void visit(unsigned long long vertex) {
        result_.clear();
        DFS(vertex);
    }

    void DFS(unsigned long long vertex) {
        if (visited_[vertex]) {
            return;
        }
        visited_[vertex] = 1;
        for (unsigned long long col = 0; col < capacity_; ++col) {
            if (at(vertex, col) != 0) {
                DFS(col);
            }
        }
        result_.push_back(names_[vertex]);
    }

    std::vector<std::string> const& getResult() const { return result_; }

    unsigned long long count() const { return count_; }

private:
    unsigned long long& at(unsigned long long row, unsigned long long col) {
        return matrix_[row * capacity_ + col];
    }

    unsigned long long capacity_;
    unsigned long long count_ = 0;
    std::vector<std::string> names_;
    std::vector<unsigned long long> matrix_;
    std::vector<std::string> result_;
    std::vector<char> visited_;
};

}  // namespace ZARNTest
