#include "dependency/graph.h"

#include <algorithm>
#include <map>
#include <set>

#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

using Id = unsigned long long;
constexpr unsigned long long kNone = ~0ULL;

// Counts the present vertices below an id, and finds the id at a given index, in O(log n); ids
// grow with every addVertex, so the tree doubles when an id falls outside it.
class PresenceTree {
public:
    void insert(Id id) {
        if (id >= size_) {
            grow(id);
        }
        present_[id] = 1;
        change(id, 1);
    }

    void erase(Id id) {
        present_[id] = 0;
        change(id, -1);
    }

    // Number of present ids below id: the current index of a present vertex.
    unsigned long long below(Id id) const {
        unsigned long long sum = 0;
        for (Id i = id; i > 0; i -= i & (~i + 1)) {
            sum += tree_[i];
        }
        return sum;
    }

    // The present id with index k (0-based); k must be below the number of present ids.
    Id at(unsigned long long k) const {
        Id pos = 0;
        for (Id step = size_; step > 0; step >>= 1) {
            if (pos + step <= size_ && tree_[pos + step] <= k) {
                pos += step;
                k -= tree_[pos];
            }
        }
        return pos;
    }

private:
    void change(Id id, long long delta) {
        for (Id i = id + 1; i <= size_; i += i & (~i + 1)) {
            tree_[i] += delta;
        }
    }

    void grow(Id id) {
        Id size = size_ ? size_ : 1;
        while (size <= id) {
            size *= 2;
        }
        size_ = size;
        present_.resize(size_, 0);
        tree_.assign(size_ + 1, 0);
        for (Id i = 0; i < size_; ++i) {
            if (present_[i]) {
                change(i, 1);
            }
        }
    }

    Id size_ = 0;  // a power of two, so that at() can halve its steps
    std::vector<char> present_;
    std::vector<unsigned long long> tree_;
};

}  // namespace

struct Graph::Impl {
    explicit Impl(unsigned long long cap) : capacity(cap), slotNames(cap), visited(cap, 0) {}

    unsigned long long capacity;
    unsigned long long count = 0;
    std::vector<std::string> result;

    // Names and walk marks by matrix index; the names here are those of indices at or beyond the
    // count, which deleteVertex leaves behind.
    std::vector<std::string> slotNames;
    std::vector<char> visited;

    // Present vertices by id. Ids rise in order of addition and deletions keep the relative order,
    // so the order of ids is the order of indices and the lowest sink id is the lowest sink index.
    std::vector<std::string> idNames;
    std::vector<std::set<Id>> successors;
    std::vector<std::set<Id>> predecessors;
    std::set<Id> sinks;
    PresenceTree present;

    // Matrix entries outside the square of present vertices, by position, by row and by column.
    std::map<unsigned long long, std::set<unsigned long long>> outsideRows;
    std::map<unsigned long long, std::set<unsigned long long>> outsideCols;

    Id idAt(unsigned long long index) const { return present.at(index); }
    unsigned long long indexOf(Id id) const { return present.below(id); }

    void link(Id from, Id to) {
        if (successors[from].insert(to).second) {
            predecessors[to].insert(from);
            sinks.erase(from);
        }
    }

    void removeEdge(Id from, Id to) {
        if (successors[from].erase(to) != 0) {
            predecessors[to].erase(from);
            if (successors[from].empty()) {
                sinks.insert(from);
            }
        }
    }

    void putOutside(unsigned long long row, unsigned long long col) {
        outsideRows[row].insert(col);
        outsideCols[col].insert(row);
    }

    void eraseOutside(unsigned long long row, unsigned long long col) {
        auto r = outsideRows.find(row);
        if (r == outsideRows.end() || r->second.erase(col) == 0) {
            return;
        }
        if (r->second.empty()) {
            outsideRows.erase(r);
        }
        auto c = outsideCols.find(col);
        c->second.erase(row);
        if (c->second.empty()) {
            outsideCols.erase(c);
        }
    }

    bool get(unsigned long long row, unsigned long long col) const {
        if (row < count && col < count) {
            return successors[idAt(row)].count(idAt(col)) != 0;
        }
        auto r = outsideRows.find(row);
        return r != outsideRows.end() && r->second.count(col) != 0;
    }

    void set(unsigned long long row, unsigned long long col, bool on) {
        if (row < count && col < count) {
            if (on) {
                link(idAt(row), idAt(col));
            } else {
                removeEdge(idAt(row), idAt(col));
            }
        } else if (on) {
            putOutside(row, col);
        } else {
            eraseOutside(row, col);
        }
    }

    std::string const& nameAt(unsigned long long index) const {
        return index < count ? idNames[idAt(index)] : slotNames[index];
    }

    // Columns of the row's non-zero entries, rising: present vertices first, then the columns at
    // or beyond the count.
    std::vector<unsigned long long> rowEntries(unsigned long long row) const {
        std::vector<unsigned long long> cols;
        if (row < count) {
            for (Id s : successors[idAt(row)]) {
                cols.push_back(indexOf(s));
            }
        }
        auto r = outsideRows.find(row);
        if (r != outsideRows.end()) {
            cols.insert(cols.end(), r->second.begin(), r->second.end());
        }
        return cols;
    }

    // Removes the vertex at index v. With keepStale, the last row and column, which the matrix
    // leaves behind outside the new count, are kept as outside entries; the sort skips that so
    // that it stays O((V + E) log V).
    void remove(unsigned long long v, Id victim, bool keepStale) {
        unsigned long long n = count;
        Id last = idAt(n - 1);
        slotNames[n - 1] = idNames[last];
        if (keepStale) {
            // Row n-1 keeps the last vertex's row in the numbering before the deletion.
            for (Id s : successors[last]) {
                putOutside(n - 1, indexOf(s));
            }
            // Column n-1 keeps the last vertex's column, with the rows already moved up.
            for (Id p : predecessors[last]) {
                if (p == victim) {
                    continue;
                }
                unsigned long long row = indexOf(p);
                if (row > v) {
                    --row;
                }
                putOutside(row, n - 1);
            }
        }
        for (Id p : predecessors[victim]) {
            if (p != victim) {
                successors[p].erase(victim);
                if (successors[p].empty()) {
                    sinks.insert(p);
                }
            }
        }
        for (Id s : successors[victim]) {
            if (s != victim) {
                predecessors[s].erase(victim);
            }
        }
        std::set<Id>().swap(successors[victim]);
        std::set<Id>().swap(predecessors[victim]);
        std::string().swap(idNames[victim]);
        sinks.erase(victim);
        present.erase(victim);
        count = n - 1;
    }
};

Graph::Graph(unsigned long long capacity) : impl_(std::make_unique<Impl>(capacity)) {}

Graph::~Graph() = default;

unsigned long long Graph::addVertex(std::string const& name) {
    Impl& g = *impl_;
    unsigned long long n = g.count;
    if (n >= g.capacity) {
        ZLOGERR("Graph is full (capacity %llu), vertex %s not added", g.capacity, name.c_str());
        return n;
    }
    Id id = g.idNames.size();
    g.idNames.push_back(name);
    g.successors.emplace_back();
    g.predecessors.emplace_back();
    g.present.insert(id);
    g.sinks.insert(id);
    g.count = n + 1;

    // Entries set earlier at this index, while it lay beyond the count, now belong to the vertex.
    auto row = g.outsideRows.find(n);
    if (row != g.outsideRows.end()) {
        std::vector<unsigned long long> cols(row->second.begin(), row->second.upper_bound(n));
        for (unsigned long long c : cols) {
            g.eraseOutside(n, c);
            g.link(id, g.idAt(c));
        }
    }
    auto col = g.outsideCols.find(n);
    if (col != g.outsideCols.end()) {
        std::vector<unsigned long long> rows(col->second.begin(), col->second.lower_bound(n));
        for (unsigned long long r : rows) {
            g.eraseOutside(r, n);
            g.link(g.idAt(r), id);
        }
    }
    return n;
}

void Graph::addEdge(unsigned long long from, unsigned long long to) {
    Impl& g = *impl_;
    if (from >= g.capacity || to >= g.capacity) {
        ZLOGERR("Graph edge %llu -> %llu out of range (capacity %llu)", from, to, g.capacity);
        return;
    }
    g.set(from, to, true);
}

unsigned long long Graph::noSuccessors() {
    Impl& g = *impl_;
    return g.sinks.empty() ? kNone : g.indexOf(*g.sinks.begin());
}

void Graph::moveRowUp(unsigned long long row, unsigned long long length) {
    Impl& g = *impl_;
    if (row >= g.capacity || row + 1 >= g.capacity) {
        ZLOGERR("Graph row %llu can't move up (capacity %llu)", row, g.capacity);
        return;
    }
    unsigned long long len = std::min(length, g.capacity);
    for (unsigned long long c = 0; c < len; ++c) {
        g.set(row, c, g.get(row + 1, c));
    }
}

void Graph::moveColLeft(unsigned long long col, unsigned long long length) {
    Impl& g = *impl_;
    if (col >= g.capacity || col + 1 >= g.capacity) {
        ZLOGERR("Graph column %llu can't move left (capacity %llu)", col, g.capacity);
        return;
    }
    unsigned long long len = std::min(length, g.capacity);
    for (unsigned long long r = 0; r < len; ++r) {
        g.set(r, col, g.get(r, col + 1));
    }
}

void Graph::deleteVertex(unsigned long long vertex) {
    Impl& g = *impl_;
    if (vertex >= g.count) {
        ZLOGERR("Graph vertex %llu out of range (count %llu), not deleted", vertex, g.count);
        return;
    }
    g.remove(vertex, g.idAt(vertex), true);
}

bool Graph::topologicalSort() {
    Impl& g = *impl_;
    g.result.clear();
    g.result.resize(g.count);
    while (g.count != 0) {
        if (g.sinks.empty()) {
            return false;
        }
        Id victim = *g.sinks.begin();
        g.result[g.count - 1] = g.idNames[victim];
        g.remove(g.indexOf(victim), victim, false);
    }
    return true;
}

void Graph::visit(unsigned long long vertex) {
    impl_->result.clear();
    DFS(vertex);
}

void Graph::DFS(unsigned long long vertex) {
    Impl& g = *impl_;
    if (vertex >= g.capacity) {
        ZLOGERR("Graph vertex %llu out of range (capacity %llu), not walked", vertex, g.capacity);
        return;
    }
    if (g.visited[vertex]) {
        return;
    }
    // An explicit stack, so that a long chain of dependencies can't exhaust the call stack;
    // it appends in the same order as the recursive walk.
    struct Frame {
        unsigned long long vertex;
        std::vector<unsigned long long> next;
        size_t pos;
    };
    std::vector<Frame> stack;
    g.visited[vertex] = 1;
    stack.push_back(Frame{vertex, g.rowEntries(vertex), 0});
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (top.pos < top.next.size()) {
            unsigned long long c = top.next[top.pos++];
            if (!g.visited[c]) {
                g.visited[c] = 1;
                stack.push_back(Frame{c, g.rowEntries(c), 0});
            }
        } else {
            g.result.push_back(g.nameAt(top.vertex));
            stack.pop_back();
        }
    }
}

std::vector<std::string> const& Graph::getResult() const {
    return impl_->result;
}

}  // namespace ZARNPackageTool
