// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Call trees in flat arrays. Nodes stand in preorder, node 0 is the root; `end` is the first node
// behind a subtree. A picture of a difference has two weights for each node: `total` is the one
// that is drawn, `before` and `after` are what is compared.

class Tree {
    constructor(nodes) {
        const size = nodes.func.length;
        this.size = size;
        this.func = Int32Array.from(nodes.func);
        this.depth = Int32Array.from(nodes.depth);
        this.line = nodes.line ? Int32Array.from(nodes.line) : new Int32Array(size);
        this.self = Float64Array.from(nodes.self);
        this.before = nodes.before ? Float64Array.from(nodes.before) : null;
        this.after = this.before ? Float64Array.from(nodes.self) : null;
        this.parent = new Int32Array(size);
        this.end = new Int32Array(size);
        this.start = new Float64Array(size);
        this.maxDepth = 0;
        const path = [];
        for (let node = 0; node < size; ++node) {
            const depth = this.depth[node];
            for (let closed = depth; closed < path.length; ++closed) {
                this.end[path[closed]] = node;
            }
            path.length = depth;
            this.parent[node] = depth > 0 ? path[depth - 1] : -1;
            path.push(node);
            this.maxDepth = Math.max(this.maxDepth, depth);
        }
        for (const node of path) {
            this.end[node] = size;
        }
        if (this.before) {
            this.accumulate(this.before);
            this.accumulate(this.after);
        }
        this.setWeights(this.self);
    }

    accumulate(weights) {
        for (let node = this.size - 1; node > 0; --node) {
            weights[this.parent[node]] += weights[node];
        }
        return weights;
    }

    /** What is drawn: own samples of each node. */
    setWeights(self) {
        this.total = this.accumulate(Float64Array.from(self));
        const next = new Float64Array(this.size);
        for (let node = 1; node < this.size; ++node) {
            const parent = this.parent[node];
            this.start[node] = next[parent];
            next[node] = next[parent];
            next[parent] += this.total[node];
        }
    }

    children(node) {
        const found = [];
        for (let child = node + 1; child < this.end[node]; child = this.end[child]) {
            found.push(child);
        }
        return found;
    }

    /** The node of this depth under the place x, counted in samples; -1 if there is none. */
    at(depth, x) {
        let node = 0;
        while (this.depth[node] < depth) {
            let child = node + 1;
            while (child < this.end[node] && this.start[child] + this.total[child] <= x) {
                child = this.end[child];
            }
            if (child >= this.end[node] || this.start[child] > x) {
                return -1;
            }
            node = child;
        }
        return node;
    }

    /** Visits the outermost nodes that match; what is below them is not asked. */
    forOutermost(matches, visit) {
        for (let node = 1; node < this.size;) {
            if (matches(this.func[node])) {
                visit(node);
                node = this.end[node];
            } else {
                ++node;
            }
        }
    }
}

/** Puts stacks together that came from different places. */
class TreeBuilder {
    constructor(functionCount, hasBefore) {
        this.functionCount = functionCount + 1;
        this.index = new Map();
        this.func = [-1];
        this.parent = [-1];
        this.line = [0];
        this.self = [0];
        this.before = hasBefore ? [0] : null;
    }

    child(parent, func, line) {
        const key = parent * this.functionCount + func;
        let node = this.index.get(key);
        if (node === undefined) {
            node = this.func.length;
            this.index.set(key, node);
            this.func.push(func);
            this.parent.push(parent);
            this.line.push(line);
            this.self.push(0);
            this.before?.push(0);
        }
        return node;
    }

    add(node, self, before) {
        this.self[node] += self;
        if (this.before) {
            this.before[node] += before;
        }
    }

    /** Puts the subtree of `tree` under `target`, without its own root. */
    addSubtree(tree, root, target, selves) {
        const ids = new Map([[root, target]]);
        this.add(target, selves.self[root], selves.before?.[root]);
        for (let node = root + 1; node < tree.end[root]; ++node) {
            const id = this.child(ids.get(tree.parent[node]), tree.func[node], tree.line[node]);
            ids.set(node, id);
            this.add(id, selves.self[node], selves.before?.[node]);
        }
    }

    /** Siblings heaviest first. */
    build() {
        const size = this.func.length;
        const total = Float64Array.from(this.self);
        const children = Array.from({length: size}, () => null);
        for (let node = size - 1; node > 0; --node) {
            total[node] += this.before?.[node] ?? 0;
            total[this.parent[node]] += total[node];
            (children[this.parent[node]] ??= []).push(node);
        }
        const nodes = {func: [], depth: [], line: [], self: [], before: this.before && []};
        const open = [[0, 0]];
        while (open.length > 0) {
            const [node, depth] = open.pop();
            nodes.func.push(this.func[node]);
            nodes.depth.push(depth);
            nodes.line.push(this.line[node]);
            nodes.self.push(this.self[node]);
            nodes.before?.push(this.before[node]);
            const below = children[node] ?? [];
            below.sort((left, right) => total[left] - total[right]);
            for (const child of below) {
                open.push([child, depth + 1]);
            }
        }
        return new Tree(nodes);
    }
}

/** Own samples before a difference was accumulated; Tree keeps totals only. */
function ownWeights(tree) {
    if (!tree.before) {
        return {self: tree.self, before: null};
    }
    const before = Float64Array.from(tree.before);
    for (let node = 1; node < tree.size; ++node) {
        before[tree.parent[node]] -= tree.before[node];
    }
    return {self: tree.self, before};
}

function mergeTrees(trees, functionCount) {
    const builder = new TreeBuilder(functionCount, Boolean(trees[0]?.before));
    for (const tree of trees) {
        builder.addSubtree(tree, 0, 0, ownWeights(tree));
    }
    return builder.build();
}

/**
 * What a function calls, and who calls it. A function that calls itself counts once for each
 * sample, where it is outermost.
 */
function calleesOf(tree, func, functionCount) {
    const builder = new TreeBuilder(functionCount, Boolean(tree.before));
    const selves = ownWeights(tree);
    const root = builder.child(0, func, 0);
    tree.forOutermost((other) => other === func, (node) => {
        builder.addSubtree(tree, node, root, selves);
    });
    return builder.build();
}

function callersOf(tree, func, functionCount) {
    const builder = new TreeBuilder(functionCount, Boolean(tree.before));
    const totals = tree.accumulate(Float64Array.from(tree.self));
    tree.forOutermost((other) => other === func, (node) => {
        let id = 0;
        for (let caller = node; caller > 0; caller = tree.parent[caller]) {
            id = builder.child(id, tree.func[caller], tree.line[caller]);
        }
        builder.add(id, totals[node], tree.before?.[node]);
    });
    return builder.build();
}

/** Own and total samples of every function, each sample counted once. */
function functionWeights(tree, functionCount) {
    const own = ownWeights(tree);
    const weights = {
        self: new Float64Array(functionCount),
        total: new Float64Array(functionCount),
        before: new Float64Array(functionCount),
    };
    const totals = tree.accumulate(Float64Array.from(own.self));
    const open = new Int32Array(functionCount);
    const path = [];
    for (let node = 1; node < tree.size; ++node) {
        while (path.length > 0 && path.length >= tree.depth[node]) {
            --open[path.pop()];
        }
        const func = tree.func[node];
        weights.self[func] += own.self[node];
        if (open[func]++ === 0) {
            weights.total[func] += totals[node];
            weights.before[func] += tree.before?.[node] ?? 0;
        }
        path.push(func);
    }
    return weights;
}
