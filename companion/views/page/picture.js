// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// One call tree drawn on a canvas that is as large as what is visible of it. Only nodes that would
// be wide enough to see are visited, so that the size of the tree hardly matters.

const rowHeight = 20;
const narrowest = 0.6;
const framesOfZoom = 9;

class Picture {
    /**
     * `look` gives colours and words: color(node, tree), label(func), isFound(func).
     * `on` gets select(node, picture) and hover(node, picture).
     */
    constructor(scroller, {rootAtBottom, skipRoot, look, on}) {
        this.scroller = scroller;
        this.canvas = scroller.querySelector('canvas');
        this.spacer = scroller.querySelector('.spacer');
        this.context = this.canvas.getContext('2d');
        this.rootAtBottom = rootAtBottom;
        this.firstRow = skipRoot ? 1 : 0;
        this.look = look;
        this.on = on;
        this.tree = null;
        this.hovered = -1;
        scroller.addEventListener('scroll', () => this.schedule());
        this.canvas.addEventListener('pointermove', (event) => this.onPointer(event));
        this.canvas.addEventListener('pointerleave', () => this.hover(-1));
        this.canvas.addEventListener('click', (event) => this.onClick(event));
        this.canvas.addEventListener('keydown', (event) => this.onKey(event));
        new ResizeObserver(() => this.layout()).observe(scroller);
    }

    show(tree) {
        this.tree = tree;
        this.zoomed = 0;
        this.selected = 0;
        this.hovered = -1;
        this.left = 0;
        this.right = tree.total[0];
        this.layout();
        this.scroller.scrollTop = this.rootAtBottom ? this.spacer.offsetHeight : 0;
    }

    layout() {
        if (!this.tree || this.scroller.clientWidth === 0) {
            return;
        }
        const ratio = window.devicePixelRatio || 1;
        const wasAtBottom = this.scroller.scrollTop + this.height >=
            this.spacer.offsetHeight - 1;
        this.width = this.scroller.clientWidth;
        this.height = this.scroller.clientHeight;
        this.canvas.width = Math.round(this.width * ratio);
        this.canvas.height = Math.round(this.height * ratio);
        this.canvas.style.width = `${this.width}px`;
        this.canvas.style.height = `${this.height}px`;
        const rows = this.tree.maxDepth + 1 - this.firstRow;
        this.full = Math.max(rows * rowHeight, this.height);
        this.spacer.style.height = `${this.full}px`;
        this.ratio = ratio;
        if (wasAtBottom && this.rootAtBottom) {
            this.scroller.scrollTop = this.full;
        }
        this.draw();
    }

    schedule() {
        this.pending ??= requestAnimationFrame(() => {
            this.pending = undefined;
            this.draw();
        });
    }

    rowTop(depth) {
        const row = depth - this.firstRow;
        const top = this.rootAtBottom ? this.full - (row + 1) * rowHeight : row * rowHeight;
        return top - this.scroller.scrollTop;
    }

    depthAt(y) {
        const place = y + this.scroller.scrollTop;
        return this.firstRow +
            Math.floor((this.rootAtBottom ? this.full - 1 - place : place) / rowHeight);
    }

    draw() {
        const {context, tree} = this;
        if (!tree || !this.width) {
            return;
        }
        const colors = this.look.scheme();
        context.setTransform(this.ratio, 0, 0, this.ratio, 0, 0);
        context.clearRect(0, 0, this.width, this.height);
        context.font = colors.font;
        context.textBaseline = 'middle';
        this.letter ||= context.measureText('0123456789').width / 10;
        const scale = this.width / Math.max(this.right - this.left, 1e-9);
        let deepest = 0;
        let highest = 0;
        for (const y of [0, this.height - 1]) {
            deepest = Math.max(deepest, this.depthAt(y));
            highest = Math.min(highest, this.depthAt(y));
        }
        // Nodes that are too narrow for themselves appear together, where there are several.
        const narrow = {depth: -1, from: 0, to: 0};
        const drawNarrow = () => {
            if (narrow.depth >= 0 && narrow.to - narrow.from >= narrowest) {
                context.fillStyle = colors.narrow;
                context.fillRect(narrow.from, this.rowTop(narrow.depth),
                    narrow.to - narrow.from, rowHeight - 1);
            }
            narrow.depth = -1;
        };
        for (let node = this.firstRow; node < tree.size;) {
            const x = (tree.start[node] - this.left) * scale;
            const width = tree.total[node] * scale;
            const depth = tree.depth[node];
            if (x >= this.width || x + width <= 0 || depth > deepest) {
                node = tree.end[node];
                continue;
            }
            if (width < narrowest) {
                if (narrow.depth !== depth || x - narrow.to > 1) {
                    drawNarrow();
                    Object.assign(narrow, {depth, from: x});
                }
                narrow.to = x + width;
                node = tree.end[node];
                continue;
            }
            this.drawNode(node, Math.max(x, 0), Math.min(x + width, this.width), colors);
            ++node;
        }
        drawNarrow();
    }

    drawNode(node, from, to, colors) {
        const {context, tree} = this;
        const top = this.rowTop(tree.depth[node]);
        if (top > this.height || top + rowHeight < 0) {
            return;
        }
        const gap = to - from > 3 ? 1 : 0;
        const isAncestor = tree.depth[node] < tree.depth[this.zoomed];
        const isFaded = this.look.isSearching() && !this.look.isFound(tree.func[node]);
        context.globalAlpha = isAncestor ? 0.55 : (isFaded ? 0.3 : 1);
        context.fillStyle = this.look.isFound(tree.func[node])
            ? colors.found : this.look.color(node, tree);
        context.fillRect(from, top, to - from - gap, rowHeight - 1);
        const room = Math.floor((to - from - 8) / this.letter);
        if (room >= 3) {
            context.fillStyle = this.look.isFound(tree.func[node]) ? colors.foundText : colors.text;
            context.fillText(this.look.label(tree.func[node], room), from + 4,
                top + rowHeight / 2);
        }
        context.globalAlpha = 1;
        const isSelected = node === this.selected && document.activeElement === this.canvas;
        if (isSelected || node === this.hovered) {
            context.strokeStyle = colors.outline;
            context.lineWidth = isSelected ? 2 : 1;
            const inset = context.lineWidth / 2;
            context.strokeRect(from + inset, top + inset, to - from - gap - 2 * inset,
                rowHeight - 1 - 2 * inset);
        }
    }

    nodeUnder(event) {
        const box = this.canvas.getBoundingClientRect();
        const x = (event.clientX - box.left) / this.width;
        const depth = this.depthAt(event.clientY - box.top);
        return depth < this.firstRow || depth > this.tree.maxDepth
            ? -1 : this.tree.at(depth, this.left + x * (this.right - this.left));
    }

    hover(node) {
        if (node !== this.hovered) {
            this.hovered = node;
            this.schedule();
            this.on.hover(node >= 0 ? node : this.selected, this);
        }
    }

    onPointer(event) {
        const node = this.tree ? this.nodeUnder(event) : -1;
        this.canvas.style.cursor = node >= 0 ? 'pointer' : 'default';
        this.hover(node);
    }

    onClick(event) {
        const node = this.nodeUnder(event);
        if (node >= 0) {
            this.select(node);
            this.zoom(node);
        }
    }

    select(node) {
        this.selected = node;
        const top = this.rowTop(this.tree.depth[node]);
        if (top < 0 || top + rowHeight > this.height) {
            this.scroller.scrollTop += top - this.height / 2;
        }
        this.schedule();
        this.on.select(node, this);
    }

    zoom(node) {
        this.zoomed = node;
        const goal = [this.tree.start[node], this.tree.start[node] + this.tree.total[node]];
        const from = [this.left, this.right];
        const calm = window.matchMedia('(prefers-reduced-motion: reduce)').matches;
        let frame = calm ? framesOfZoom : 0;
        cancelAnimationFrame(this.moving);
        const step = () => {
            const part = Math.min(++frame / framesOfZoom, 1);
            const eased = 1 - (1 - part) ** 3;
            this.left = from[0] + (goal[0] - from[0]) * eased;
            this.right = from[1] + (goal[1] - from[1]) * eased;
            this.draw();
            if (part < 1) {
                this.moving = requestAnimationFrame(step);
            }
        };
        step();
        this.on.zoom?.(node, this);
    }

    /** Away from the root is up or down, whichever way the picture stands. */
    onKey(event) {
        const {tree, selected} = this;
        const away = this.rootAtBottom ? 'ArrowUp' : 'ArrowDown';
        const back = this.rootAtBottom ? 'ArrowDown' : 'ArrowUp';
        let next = -1;
        if (event.altKey || event.ctrlKey || event.metaKey) {
            return;
        }
        if (event.key === away) {
            const below = tree.children(selected);
            next = below.reduce((best, node) =>
                (best < 0 || tree.total[node] > tree.total[best] ? node : best), -1);
        } else if (event.key === back) {
            next = Math.max(tree.parent[selected], this.firstRow);
        } else if (event.key === 'ArrowLeft' || event.key === 'ArrowRight') {
            const siblings = selected > 0 ? tree.children(tree.parent[selected]) : [0];
            const step = event.key === 'ArrowLeft' ? -1 : 1;
            next = siblings[siblings.indexOf(selected) + step] ?? -1;
        } else if (event.key === 'Home') {
            next = this.firstRow;
        } else if (event.key === 'Enter' || event.key === ' ') {
            this.zoom(selected);
        } else if (event.key === 'Backspace') {
            this.zoom(Math.max(tree.parent[this.zoomed], 0));
        } else if (event.key === 'Escape') {
            this.zoom(0);
        } else {
            return;
        }
        event.preventDefault();
        if (next >= 0) {
            this.select(next);
        }
    }
}
