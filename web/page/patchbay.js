// The patchbay: five columns of nodes with wires between them, to be dragged and clicked.

import { COLUMNS } from "./model.js";

const SVG = "http://www.w3.org/2000/svg";
const WIDTH = 150;
const HEIGHT = 26;
const GAP = 6;
const COLUMN = 240;
const TOP = 34;
const SWITCH = 22; // the part of a node that switches it

const FLOOR_DBFS = -60;

function element(name, attributes, parent) {
  const made = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  parent?.append(made);
  return made;
}

/** Where each node is; those that something is connected to come first in their column. */
function place(graph) {
  const used = new Set(graph.wires.flatMap(({ from, to }) => [from, to]));
  const places = new Map();
  COLUMNS.forEach(({ kind }, column) => {
    [...graph.nodes.values()]
      .filter((node) => node.kind === kind)
      .sort((a, b) => used.has(b.id) - used.has(a.id))
      .forEach((node, row) => {
        places.set(node.id, { x: column * COLUMN + 1, y: TOP + row * (HEIGHT + GAP) });
      });
  });
  return places;
}

function curve(from, to) {
  const middle = (from.x + to.x) / 2;
  return `M${from.x},${from.y} C${middle},${from.y} ${middle},${to.y} ${to.x},${to.y}`;
}

/**
 * Events, with their data in `detail`: "wire" {from, to} when one node is dragged to another, "cut"
 * (a wire), "switch" and "select" (a node). Nodes are told by their ids.
 */
export class Patchbay extends EventTarget {
  #svg;
  #graph = { nodes: new Map(), wires: [] };
  #places = new Map();
  #paths = new Map(); // of tap-outs: those that carry their level
  #shown = new Map(); // elements of nodes and wires, by id
  #drag = null;
  #marked = null; // the id of the node that W has begun a wire at
  #readOnly;

  /** One that is read-only is a picture. */
  constructor(parent, { readOnly = false } = {}) {
    super();
    this.#readOnly = readOnly;
    this.#svg = element("svg", { role: "group", "aria-label": "Audio graph" }, parent);
    COLUMNS.forEach(({ title }, column) => {
      element("text", { x: column * COLUMN + 4, y: 18, class: "column" }, this.#svg)
        .textContent = title;
    });
    this.#svg.addEventListener("pointermove", (event) => this.#move(event));
    this.#svg.addEventListener("pointerup", (event) => this.#drop(event));
    this.#svg.addEventListener("pointercancel", () => this.#endDrag());
  }

  /** Elements of what stays are kept, so that a drag and the focus survive. */
  show(graph) {
    this.#graph = graph;
    this.#places = place(graph);
    this.#paths.clear();
    const rows = Math.max(...[...this.#places.values()].map(({ y }) => y), 0);
    const size = [COLUMN * 4 + WIDTH + 2, rows + HEIGHT + GAP];
    this.#svg.setAttribute("viewBox", `0 0 ${size.join(" ")}`);
    const ids = new Set(graph.nodes.keys());
    for (const wire of graph.wires) ids.add(this.#showWire(wire));
    for (const node of graph.nodes.values()) this.#showNode(node);
    for (const [id, shown] of this.#shown) {
      if (ids.has(id)) continue;
      shown.remove();
      this.#shown.delete(id);
      if (id === this.#marked) this.#marked = null;
    }
  }

  /**
   * Levels by point, the point of each tap-out, and the names of what has lost packets or clipped
   * of late.
   */
  showLevels(levels, points, troubled) {
    for (const [id, paths] of this.#paths) {
      const name = id.slice("tapout:".length);
      const point = points.get(name);
      const peak = Math.max(...(levels[point]?.peak ?? [-Infinity]));
      const share = Math.min(1, Math.max(0, 1 - peak / FLOOR_DBFS));
      const width = `${(1.5 + 4 * share).toFixed(1)}px`;
      for (const path of paths) {
        if (path.style.strokeWidth !== width) path.style.strokeWidth = width;
        path.classList.toggle("troubled", troubled.has(name) || troubled.has(point));
      }
    }
  }

  /** Returns the wire's id. */
  #showWire(wire) {
    const id = `${wire.from} ${wire.to}`;
    const [from, to] = [wire.from, wire.to].map((end) => this.#graph.nodes.get(end));
    const [a, b] = [from, to].map((node) => this.#places.get(node.id));
    const path = this.#shown.get(id) ?? this.#makeWire(id, wire);
    path.setAttribute("d", curve(
      { x: a.x + WIDTH, y: a.y + HEIGHT / 2 }, { x: b.x, y: b.y + HEIGHT / 2 }));
    path.classList.toggle("on", from.on && to.on);
    path.setAttribute("aria-label", `Wire from ${from.label} to ${to.label}; Delete removes it`);
    for (const node of [from, to].filter(({ kind }) => kind === "tapout")) {
      this.#paths.set(node.id, [...(this.#paths.get(node.id) ?? []), path]);
    }
    return id;
  }

  #makeWire(id, wire) {
    const path = element("path", { class: "wire", ...this.#roles() }, null);
    this.#svg.prepend(path); // behind the nodes
    path.dataset.id = id;
    this.#shown.set(id, path);
    if (this.#readOnly) return path;
    path.addEventListener("dblclick", () => this.#tell("cut", wire));
    path.addEventListener("keydown", ({ key }) => {
      if (key === "Delete" || key === "Backspace") this.#tell("cut", wire);
    });
    return path;
  }

  #showNode(node) {
    const { x, y } = this.#places.get(node.id);
    const group = this.#shown.get(node.id) ?? this.#makeNode(node);
    group.setAttribute("transform", `translate(${x},${y})`);
    group.classList.toggle("on", node.on);
    group.setAttribute("aria-pressed", node.on);
    group.setAttribute("aria-label",
      `${node.label}, ${node.text || node.kind}, ${node.on ? "on" : "off"}`);
    group.querySelector(".text").textContent = node.tap ? "" : node.text;
    group.querySelector("title").textContent = `${node.name} ${node.text}`;
  }

  #makeNode({ id, kind, label }) {
    const group = element("g", { class: `node ${kind}`, ...this.#roles() }, this.#svg);
    group.dataset.id = id;
    this.#shown.set(id, group);
    element("rect", { width: WIDTH, height: HEIGHT, rx: 5 }, group);
    element("circle", { cx: 12, cy: HEIGHT / 2, r: 5 }, group);
    element("text", { x: 24, y: 17 }, group).textContent = label;
    element("text", { x: WIDTH - 5, y: 17, class: "text" }, group);
    element("title", {}, group);
    if (this.#readOnly) return group;
    group.addEventListener("pointerdown", (event) => this.#begin(event, id));
    group.addEventListener("keydown", (event) => this.#press(event, id));
    return group;
  }

  #roles() {
    return this.#readOnly ? { role: "img" } : { role: "button", tabindex: 0 };
  }

  #press(event, id) {
    const keys = {
      " ": () => this.#tell("switch", id),
      Enter: () => this.#tell("select", id),
      w: () => this.#wireTo(id),
      Escape: () => this.#mark(null),
    };
    const press = keys[event.key];
    if (!press || event.repeat) return;
    press();
    event.preventDefault();
  }

  /** The first call begins a wire, the second one ends it. */
  #wireTo(id) {
    if (this.#marked === null || this.#marked === id) return this.#mark(id);
    this.#tell("wire", { from: this.#marked, to: id });
    this.#mark(null);
  }

  #mark(id) {
    this.#shown.get(this.#marked)?.classList.remove("marked");
    this.#marked = id;
    this.#shown.get(id)?.classList.add("marked");
  }

  #point(event) {
    return new DOMPoint(event.clientX, event.clientY)
      .matrixTransform(this.#svg.getScreenCTM().inverse());
  }

  #begin(event, id) {
    if (event.button !== 0) return;
    event.currentTarget.focus();
    this.#svg.setPointerCapture(event.pointerId);
    this.#drag = { id, from: this.#point(event), path: null };
    event.preventDefault();
  }

  #move(event) {
    if (!this.#drag) return;
    const to = this.#point(event);
    const { from } = this.#drag;
    if (!this.#drag.path && Math.hypot(to.x - from.x, to.y - from.y) < 6) return;
    this.#drag.path ??= element("path", { class: "wire drag" }, this.#svg);
    this.#drag.path.setAttribute("d", curve(from, to));
  }

  #drop(event) {
    if (!this.#drag) return;
    const { id, path, from } = this.#drag;
    this.#endDrag();
    if (path) {
      const to = this.#idAt(event);
      if (to && to !== id) this.#tell("wire", { from: id, to });
      return;
    }
    const place = this.#places.get(id);
    if (place) this.#tell(from.x < place.x + SWITCH ? "switch" : "select", id);
  }

  /** Of the node at the pointer. */
  #idAt(event) {
    return document.elementsFromPoint(event.clientX, event.clientY)
      .map((found) => found.closest("g.node")).find(Boolean)?.dataset.id;
  }

  #endDrag() {
    this.#drag?.path?.remove();
    this.#drag = null;
  }

  #tell(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}
