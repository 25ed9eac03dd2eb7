#!/usr/bin/env python3
"""Checks the include graph of src/ and tools/ against the layer table in
README.md (between the "layers" markers): every quoted include must point to
the file's own layer or to one its row allows, only layers marked for the
screen may include QtGui, QtWidgets or QtOpenGL, and no two layers may depend
on each other. Exits 1 with one line per breach."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
GUI_MODULES = ("QtGui", "QtWidgets", "QtOpenGL", "QtOpenGLWidgets")
GUI_CLASSES = {
    "QGuiApplication", "QApplication", "QWidget", "QMainWindow", "QDialog", "QImage", "QPixmap", "QPainter",
    "QColor", "QFont", "QIcon", "QWindow", "QScreen", "QOpenGLWidget", "QOpenGLContext", "QOpenGLFunctions",
    "QLabel", "QPushButton", "QKeyEvent", "QMouseEvent", "QDesktopServices",
}
SOURCE_SUFFIXES = {".h", ".hpp", ".cpp", ".cc"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def read_table():
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    m = re.search(r"<!-- layers -->(.*?)<!-- /layers -->", text, re.S)
    if not m:
        sys.exit("check-layers: README.md has no <!-- layers --> table")
    layers = {}
    for row in m.group(1).splitlines():
        cells = [c.strip() for c in row.strip().strip("|").split("|")]
        if len(cells) < 4 or not cells[1].startswith("`"):
            continue
        name, folder, uses, gui = cells[0], cells[1].strip("`"), cells[2], cells[3]
        allowed = {u.strip() for u in uses.split(",") if u.strip() and u.strip() != "—"}
        layers[name] = {"folder": folder.rstrip("/"), "uses": allowed, "gui": gui.lower() == "yes"}
    for name, layer in layers.items():
        for u in layer["uses"]:
            if u not in layers:
                sys.exit(f"check-layers: layer {name} uses unknown layer {u}")
    return layers


def layer_of(path, layers):
    best = None
    for name, layer in layers.items():
        folder = layer["folder"]
        if path == folder or path.startswith(folder + "/"):
            if best is None or len(folder) > len(layers[best]["folder"]):
                best = name
    return best


def table_cycles(layers):
    # Depth-first search over the allowed edges.
    state, out = {}, []

    def visit(n, stack):
        state[n] = 1
        for m in layers[n]["uses"]:
            if state.get(m) == 1:
                out.append(" -> ".join(stack + [n, m]))
            elif m not in state:
                visit(m, stack + [n])
        state[n] = 2

    for n in layers:
        if n not in state:
            visit(n, [])
    return out


def main():
    layers = read_table()
    problems = [f"the layer table has a cycle: {c}" for c in table_cycles(layers)]
    edges = {}
    for base in ("src", "tools"):
        for f in sorted((ROOT / base).rglob("*")):
            if f.suffix not in SOURCE_SUFFIXES or not f.is_file():
                continue
            rel = f.relative_to(ROOT).as_posix()
            own = layer_of(rel, layers)
            if own is None:
                problems.append(f"{rel}: in no layer of the README's table")
                continue
            text = f.read_text(encoding="utf-8", errors="replace")
            for kind, target in INCLUDE.findall(text):
                if kind == "<":
                    first = target.split("/")[0]
                    if (first in GUI_MODULES or target in GUI_CLASSES) and not layers[own]["gui"]:
                        problems.append(f"{rel}: includes <{target}>, but layer {own} may not use the screen")
                    continue
                other = layer_of("src/" + target, layers) if (ROOT / "src" / target).exists() else None
                if other is None or other == own:
                    continue
                edges.setdefault(own, set()).add(other)
                if other not in layers[own]["uses"]:
                    problems.append(f'{rel}: includes "{target}" of layer {other}, which layer {own} may not use')
    for a, targets in edges.items():
        for b in targets:
            if a < b and a in edges.get(b, set()):
                problems.append(f"layers {a} and {b} depend on each other")
    for p in problems:
        print("check-layers:", p)
    if problems:
        return 1
    print(f"check-layers: {len(layers)} layers, every include in place")
    return 0


if __name__ == "__main__":
    sys.exit(main())
