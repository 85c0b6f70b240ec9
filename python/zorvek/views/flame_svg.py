"""The flame graph as an interactive SVG that a browser opens from a file.

Root on top: a frame "all", then each process, each of its threads, with
`--by-range` the annotation ranges open on the thread, then the sampled stack.
A frame's width is its share of the samples; the graph is as tall as its
deepest stack, so an ordinary one fits the first screen.

Each frame is a `<g class="f">` holding a `<title>` ("name (N samples, S%)"),
a `<rect>` and, where the name fits, a `<text>`. The script and the style are
inside the file, so it works offline: typing in the search field highlights the
frames whose names hold the text and says what share of all samples they cover
(a frame inside another match is counted once); a click on a frame zooms it to
the full width, and "Reset zoom", a click on "all" or Escape returns.

Frames are placed on an axis of samples (`data-x`, `data-n`), so that the script
zooms and measures in whole samples rather than in rounded pixels.
"""

from __future__ import annotations

import html
import json
import re
import sys
import zlib
from typing import Dict, Iterable, Iterator, List, Tuple

FRAME_H = 16
CHAR_W = 7.0  # average advance of the 12 px monospace font
PAD = 10
TOP = 60      # title, subtitle, the search field
BOTTOM = 28   # the line that names the frame under the pointer

ROOT, PROCESS, THREAD, RANGE, PYTHON, NATIVE = "root", "process", "thread", "range", "python", "native"


class _Node:
    __slots__ = ("name", "kind", "value", "children")

    def __init__(self, name: str, kind: str):
        self.name, self.kind, self.value = name, kind, 0
        self.children: Dict[Tuple[str, str], "_Node"] = {}

    def child(self, name: str, kind: str) -> "_Node":
        node = self.children.get((kind, name))
        if node is None:
            node = self.children[(kind, name)] = _Node(name, kind)
        return node


def _tree(paths: Iterable[Tuple[List[Tuple[str, str]], int]]) -> _Node:
    root = _Node("all", ROOT)
    for path, n in paths:
        root.value += n
        node = root
        for name, kind in path:
            node = node.child(name, kind)
            node.value += n
    return root


def _colour(name: str, kind: str) -> str:
    """Fixed per name, so that one function keeps its colour; warm for native
    code, yellow-green for Python, cool for the processes, threads and ranges
    that hold them."""
    h = zlib.crc32(name.encode("utf-8", "replace"))
    if kind == ROOT:
        return "rgb(224,224,224)"
    if kind == PROCESS:
        return "rgb(%d,%d,%d)" % (120 + (h & 0x1F), 160 + ((h >> 8) % 30), 220)
    if kind == THREAD:
        return "rgb(%d,%d,%d)" % (160 + (h & 0x1F), 195 + ((h >> 8) % 30), 240)
    if kind == RANGE:
        return "rgb(%d,%d,%d)" % (190 + (h & 0x1F), 160 + ((h >> 8) % 40), 230)
    if kind == PYTHON:
        return "rgb(%d,%d,%d)" % (180 + (h & 0x3F), 200 + ((h >> 8) % 40), 60 + ((h >> 16) % 50))
    return "rgb(%d,%d,%d)" % (205 + (h & 0x31), 80 + ((h >> 8) % 150), (h >> 16) % 60)


_NOT_XML = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff]")


def _text(name: str) -> str:
    """A name as XML text: escaped, without the control characters XML forbids."""
    return html.escape(_NOT_XML.sub("?", name))


def _label(name: str, width: float) -> str:
    fits = int((width - 6) / CHAR_W)
    if len(name) <= fits:
        return name
    return name[:fits - 2] + ".." if fits >= 4 else ""


STYLE = """
g.f { cursor: pointer; }
g.f:hover rect { stroke: #000; stroke-width: 0.8; }
g.f text { pointer-events: none; }
g.f.m rect { fill: rgb(238, 64, 238); }
g.f.p rect { fill-opacity: 0.5; }
#zvk-reset { cursor: pointer; fill: #1a5fb4; visibility: hidden; }
#zvk-reset.on { visibility: visible; }
#zvk-matched { fill: #333; }
"""

# The script works on the frames the file holds: it reads each one's place on the
# sample axis from its attributes and its name from its title.
SCRIPT = r"""
(function () {
  "use strict";
  var conf = ZVK_CONF;
  var doc = document;
  var frames = [];
  var groups = doc.getElementsByClassName("f");
  for (var i = 0; i < groups.length; i++) {
    var g = groups[i];
    var title = g.getElementsByTagName("title")[0].textContent;
    var rect = g.getElementsByTagName("rect")[0];
    var text = g.getElementsByTagName("text")[0] || null;
    frames.push({
      g: g, rect: rect, text: text,
      name: title.slice(0, title.lastIndexOf(" (")),
      x: Number(g.getAttribute("data-x")),
      n: Number(g.getAttribute("data-n")),
      d: Number(g.getAttribute("data-d"))
    });
  }
  var details = doc.getElementById("zvk-details");
  var reset = doc.getElementById("zvk-reset");
  var matched = doc.getElementById("zvk-matched");
  var search = doc.getElementById("zvk-search");

  function label(name, width) {
    var fits = Math.floor((width - 6) / conf.charWidth);
    if (name.length <= fits) return name;
    return fits >= 4 ? name.slice(0, fits - 2) + ".." : "";
  }

  function place(f, x, width) {
    f.rect.setAttribute("x", x.toFixed(2));
    f.rect.setAttribute("width", width.toFixed(2));
    var shown = label(f.name, width);
    if (shown && !f.text) {
      f.text = doc.createElementNS("http://www.w3.org/2000/svg", "text");
      f.text.setAttribute("y", String(Number(f.rect.getAttribute("y")) + conf.rowHeight - 4));
      f.g.appendChild(f.text);
    }
    if (f.text) {
      f.text.setAttribute("x", (x + 3).toFixed(2));
      f.text.textContent = shown;
    }
  }

  function zoom(target) {
    var scale = conf.usable / target.n;
    frames.forEach(function (f) {
      var inside = f.x >= target.x && f.x + f.n <= target.x + target.n && f.d >= target.d;
      var above = f.d < target.d && f.x <= target.x && f.x + f.n >= target.x + target.n;
      var width = inside ? f.n * scale : conf.usable;
      var visible = above || (inside && width >= 0.1);
      f.g.style.display = visible ? "" : "none";
      f.g.classList.toggle("p", above);
      if (visible) place(f, conf.pad + (inside ? (f.x - target.x) * scale : 0), width);
    });
    reset.classList.add("on");
  }

  function unzoom() {
    var scale = conf.usable / conf.total;
    frames.forEach(function (f) {
      f.g.style.display = "";
      f.g.classList.remove("p");
      place(f, conf.pad + f.x * scale, f.n * scale);
    });
    reset.classList.remove("on");
  }

  function find(term) {
    term = term.trim().toLowerCase();
    var spans = [];
    frames.forEach(function (f) {
      var hit = term !== "" && f.d > 0 && f.name.toLowerCase().indexOf(term) >= 0;
      f.g.classList.toggle("m", hit);
      if (hit) spans.push([f.x, f.x + f.n]);
    });
    if (term === "") {
      matched.textContent = "";
      return;
    }
    spans.sort(function (a, b) { return a[0] - b[0]; });
    var covered = 0, end = -1;
    spans.forEach(function (s) {
      if (s[1] <= end) return;
      covered += s[1] - Math.max(s[0], end);
      end = s[1];
    });
    var share = conf.total ? 100 * covered / conf.total : 0;
    matched.textContent = "Matched: " + share.toFixed(2) + "% of all samples (" + covered +
      " of " + conf.total + ")";
  }

  frames.forEach(function (f) {
    f.g.addEventListener("click", function () {
      if (f.d === 0) unzoom(); else zoom(f);
    });
    f.g.addEventListener("mouseover", function () {
      details.textContent = f.g.getElementsByTagName("title")[0].textContent;
    });
    f.g.addEventListener("mouseout", function () { details.textContent = " "; });
  });
  reset.addEventListener("click", unzoom);
  search.addEventListener("input", function () { find(search.value); });
  search.addEventListener("keydown", function (e) {
    if (e.key === "Escape") { search.value = ""; find(""); }
  });
  doc.addEventListener("keydown", function (e) {
    if (e.key === "Escape" && e.target !== search) unzoom();
    if ((e.ctrlKey || e.metaKey) && e.key === "f") { e.preventDefault(); search.focus(); }
  });
})();
"""


def _paths(profile) -> Iterator[Tuple[List[Tuple[str, str]], int]]:
    """Each sample's path from the root: process, thread, ranges, frames."""
    sources = profile.sources
    for s in profile.samples:
        path = [(profile.processes[s.pid], PROCESS), (profile.threads[(s.pid, s.tid)], THREAD)]
        path.extend((name, RANGE) for name in s.ranges)
        for frame in s.frames:
            source = sources.get(frame)
            path.append((frame, PYTHON if source is not None and source.python else NATIVE))
        yield path, s.count


def render_svg(profile, title: str, subtitle: str, width: int = 1200) -> str:
    """The SVG of a flame profile (`zorvek.flame.FlameProfile`)."""
    root = _tree(_paths(profile))
    total = root.value
    usable = width - 2 * PAD

    def drawn(node: _Node) -> bool:
        return node.value * usable / total >= 0.1

    def depth(node: _Node) -> int:
        return 1 + max((depth(c) for c in node.children.values() if drawn(c)), default=0)

    sys.setrecursionlimit(max(sys.getrecursionlimit(), 10000))
    levels = depth(root)
    height = TOP + levels * FRAME_H + BOTTOM
    conf = {"pad": PAD, "usable": usable, "total": total, "rowHeight": FRAME_H,
            "charWidth": CHAR_W}
    search_w = 260
    parts = [
        '<?xml version="1.0" encoding="UTF-8" standalone="no"?>',
        '<svg xmlns="http://www.w3.org/2000/svg" version="1.1" width="%d" height="%d" '
        'viewBox="0 0 %d %d" font-family="monospace" font-size="12">' % (width, height, width, height),
        "<style><![CDATA[%s]]></style>" % STYLE,
        '<rect x="0" y="0" width="%d" height="%d" fill="#f8f8f8"/>' % (width, height),
        '<text x="%d" y="20" font-size="16">%s</text>' % (PAD, _text(title)),
        '<text x="%d" y="38" fill="#555">%s</text>' % (PAD, _text(subtitle)),
        '<foreignObject x="%d" y="6" width="%d" height="26">'
        '<div xmlns="http://www.w3.org/1999/xhtml" style="margin:0;padding:0">'
        '<input type="search" id="zvk-search" placeholder="Search frames (Ctrl+F)" '
        'aria-label="Search frames" style="width:%dpx;font:12px monospace;box-sizing:border-box"/>'
        '</div></foreignObject>' % (width - PAD - search_w, search_w, search_w),
        '<text id="zvk-matched" x="%d" y="52" text-anchor="end"> </text>' % (width - PAD),
        '<text id="zvk-reset" x="%d" y="52">Reset zoom</text>' % PAD,
    ]

    def draw(node: _Node, x: int, level: int) -> None:
        if not drawn(node):
            return
        w = node.value * usable / total
        y = TOP + level * FRAME_H
        share = 100.0 * node.value / total
        about = "%s (%d sample%s, %.2f%%)" % (node.name, node.value,
                                              "" if node.value == 1 else "s", share)
        text = _label(node.name, w)
        parts.append('<g class="f" data-x="%d" data-n="%d" data-d="%d"><title>%s</title>'
                     '<rect x="%.2f" y="%d" width="%.2f" height="%d" fill="%s" rx="2"/>%s</g>'
                     % (x, node.value, level, _text(about), PAD + x * usable / total, y, w,
                        FRAME_H - 1, _colour(node.name, node.kind),
                        '<text x="%.2f" y="%d">%s</text>' % (PAD + x * usable / total + 3,
                                                             y + FRAME_H - 4, _text(text))
                        if text else ""))
        child_x = x
        for key in sorted(node.children):
            child = node.children[key]
            draw(child, child_x, level + 1)
            child_x += child.value

    draw(root, 0, 0)
    parts.append('<text id="zvk-details" x="%d" y="%d"> </text>' % (PAD, height - 10))
    parts.append('<script type="text/ecmascript"><![CDATA[%s]]></script>'
                 % SCRIPT.replace("ZVK_CONF", json.dumps(conf)))
    parts.append("</svg>")
    return "\n".join(parts) + "\n"

