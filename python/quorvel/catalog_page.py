# SPDX-License-Identifier: BSD-3-Clause
"""The overview page of a catalogue run (quorvel catalog --report): OUTDIR/index.html, one file
a browser opens without a network: the chunks' squares on a map coloured by outcome or by a
statistic, their pictures (OUTDIR/thumbnails/, beside the page), the run's summary and a table
of the chunks. The page's data is one JSON object in the page; its inline script draws it."""

import json
import os
import struct

from .catalog import Error

PAGE = "index.html"


def _picture_box(folder, thumbnail):
    """Where a thumbnail lies on the map, (left, bottom, right, top), from its PNG size and its
    world file; None when either cannot be read (the page then shows no picture there)."""
    png = os.path.join(folder, thumbnail)
    try:
        with open(png, "rb") as f:
            head = f.read(24)
        with open(os.path.splitext(png)[0] + ".pgw", encoding="ascii") as f:
            a, _, _, e, cx, cy = (float(v) for v in f.read().split()[:6])
    except (OSError, ValueError):
        return None
    if len(head) < 24 or head[12:16] != b"IHDR":
        return None
    width, height = struct.unpack(">II", head[16:24])
    # The world file gives the centre of the upper-left pixel; e is negative (north up).
    left, top = cx - a / 2, cy - e / 2
    return [left, top + e * height, left + a * width, top]


def page_data(report, folder, colour_by):
    """The page's JSON object: the summary, the failures (unreadable files included) and one
    entry per chunk."""
    tiles = []
    for t in report.tiles:
        tiles.append({
            "name": t.name, "square": list(t.square), "status": t.status,
            "points": t.points, "ground": t.ground, "density": t.density,
            "groundShare": t.ground_share, "thumbnail": t.thumbnail,
            "pictureBox": _picture_box(folder, t.thumbnail) if t.thumbnail else None,
        })
    return {
        "folder": folder,
        "colourBy": colour_by,
        "summary": {
            "chunks": len(report.written) + len(report.skipped) + len(report.empty)
            + len(report.failed),
            "written": len(report.written), "skipped": len(report.skipped),
            "empty": len(report.empty), "failed": len(report.failed),
            "pointsRead": report.points_read, "pointsWritten": report.points_written,
            "seconds": round(report.seconds, 3),
        },
        "failures": sorted([name, message] for name, message in report.failed.items()),
        "mosaics": [os.path.basename(m) for m in report.mosaics],
        "tiles": tiles,
    }


def write_page(report, folder, colour_by="status"):
    """Writes folder/index.html for report (a run's Report into folder) and returns its path."""
    data = json.dumps(page_data(report, folder, colour_by), separators=(",", ":"))
    # Inside <script> the text must not close the element: "<" is written as its escape.
    data = data.replace("<", "\\u003c")
    path = os.path.join(folder, PAGE)
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(_TEMPLATE.replace("@DATA@", data))
    except OSError as e:
        raise Error(f"{path}: {e.strerror}") from None
    return path


_TEMPLATE = """<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<title>quorvel catalog</title>
<style>
body { font: 14px/1.4 sans-serif; margin: 16px; color: #222; background: #fff; }
h1 { font-size: 18px; margin: 0 0 8px; }
#top { display: flex; gap: 16px; align-items: flex-start; }
#map { border: 1px solid #bbb; cursor: crosshair; }
#side { min-width: 240px; }
#legend div { display: flex; align-items: center; gap: 6px; margin: 2px 0; }
.swatch { width: 14px; height: 14px; border: 1px solid #666; display: inline-block; }
#ramp { width: 200px; height: 12px; border: 1px solid #666; }
#detail img { max-width: 240px; image-rendering: pixelated; border: 1px solid #ccc; }
table { border-collapse: collapse; margin-top: 12px; }
th, td { border: 1px solid #ccc; padding: 2px 8px; text-align: right; }
th:first-child, td:first-child, td.status { text-align: left; }
td img { height: 48px; image-rendering: pixelated; }
tr.chosen { background: #fff3c4; }
.failed { color: #c62828; }
</style></head>
<body>
<h1>quorvel catalog: <span id="folder"></span></h1>
<p id="summary"></p>
<p>Colour by <select id="colour">
<option value="status">status</option><option value="points">points</option>
<option value="density">density (points per square unit)</option>
<option value="ground">share of ground (class 2)</option>
<option value="pictures">pictures (top views by class)</option></select></p>
<div id="top"><canvas id="map"></canvas>
<div id="side"><div id="legend"></div><div id="detail"><p>Click a chunk for its picture.</p></div>
</div></div>
<ul id="failures"></ul>
<table id="tiles"><thead><tr><th>chunk</th><th>status</th><th>points</th>
<th>density</th><th>ground</th><th>picture</th></tr></thead><tbody></tbody></table>
<div id="footprints" hidden></div>
<script type="application/json" id="catalog-data">@DATA@</script>
<script>
"use strict";
const data = JSON.parse(document.getElementById("catalog-data").textContent);
const STATUS = {written: "#2e7d32", skipped: "#1565c0", empty: "#9e9e9e", failed: "#c62828"};
const UNKNOWN = "#e0e0e0";
// viridis at five stops: perceptually uniform, readable in grey and by most colour-blind eyes.
const RAMP = [[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]];
const STATS = {
  points: {label: "points", value: t => t.points},
  density: {label: "points per square unit", value: t => t.density},
  ground: {label: "share of ground", value: t => t.groundShare},
};
const hex = c => "#" + c.map(v => Math.round(v).toString(16).padStart(2, "0")).join("");
function ramp(f) {
  const x = Math.min(Math.max(f, 0), 1) * (RAMP.length - 1), k = Math.min(Math.floor(x), RAMP.length - 2);
  return hex(RAMP[k].map((v, i) => v + (RAMP[k + 1][i] - v) * (x - k)));
}
function format(v, kind) {
  if (v === null || v === undefined) return "";
  if (kind === "ground") return (100 * v).toFixed(1) + " %";
  if (kind === "density") return v.toPrecision(4);
  return String(v);
}
// A picture's address relative to the page, its parts escaped (chunk names come from files).
const address = path => path.split("/").map(encodeURIComponent).join("/");
function el(tag, text, attrs) {
  const e = document.createElement(tag);
  if (text !== undefined) e.textContent = text;
  for (const [k, v] of Object.entries(attrs || {})) e.setAttribute(k, v);
  return e;
}

// The map: chunk squares in map coordinates, north up, the same scale along x and y.
const canvas = document.getElementById("map");
const tiles = data.tiles;
const xs = tiles.flatMap(t => [t.square[0], t.square[2]]);
const ys = tiles.flatMap(t => [t.square[1], t.square[3]]);
const bounds = tiles.length ? [Math.min(...xs), Math.min(...ys), Math.max(...xs), Math.max(...ys)]
                            : [0, 0, 1, 1];
const MARGIN = 8, spanX = Math.max(bounds[2] - bounds[0], 1e-9), spanY = Math.max(bounds[3] - bounds[1], 1e-9);
const scale = Math.min(720 / spanX, 560 / spanY);
const cssWidth = Math.ceil(spanX * scale) + 2 * MARGIN, cssHeight = Math.ceil(spanY * scale) + 2 * MARGIN;
const ratio = window.devicePixelRatio || 1;
canvas.style.width = cssWidth + "px";
canvas.style.height = cssHeight + "px";
canvas.width = Math.round(cssWidth * ratio);
canvas.height = Math.round(cssHeight * ratio);
const mapX = x => MARGIN + (x - bounds[0]) * scale;
const mapY = y => MARGIN + (bounds[3] - y) * scale;
const pictures = {};
for (const t of tiles)
  if (t.thumbnail) {
    const image = new Image();
    image.onload = () => { if (choice() === "pictures") draw(); };
    image.src = address(t.thumbnail);
    pictures[t.name] = image;
  }

function choice() { return document.getElementById("colour").value; }

function colours(kind) {
  if (kind === "status" || kind === "pictures") return tiles.map(t => STATUS[t.status]);
  const values = tiles.map(STATS[kind].value).filter(v => v !== null && v !== undefined);
  const low = Math.min(...values), high = Math.max(...values);
  return tiles.map(t => {
    const v = STATS[kind].value(t);
    if (v === null || v === undefined) return UNKNOWN;
    return ramp(high > low ? (v - low) / (high - low) : 0.5);
  });
}

function draw() {
  const kind = choice(), fill = colours(kind), ctx = canvas.getContext("2d");
  ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
  ctx.fillStyle = "#fff";
  ctx.fillRect(0, 0, cssWidth, cssHeight);
  const list = document.getElementById("footprints");
  list.replaceChildren();
  const box = canvas.getBoundingClientRect();
  tiles.forEach((t, k) => {
    const [x0, y0, x1, y1] = [mapX(t.square[0]), mapY(t.square[3]), mapX(t.square[2]), mapY(t.square[1])];
    const picture = pictures[t.name];
    if (kind === "pictures" && picture && picture.complete && picture.naturalWidth && t.pictureBox) {
      const b = t.pictureBox;
      ctx.drawImage(picture, mapX(b[0]), mapY(b[3]), (b[2] - b[0]) * scale, (b[3] - b[1]) * scale);
    } else if (kind !== "pictures") {
      ctx.fillStyle = fill[k];
      ctx.fillRect(x0, y0, x1 - x0, y1 - y0);
    }
    ctx.strokeStyle = kind === "pictures" ? fill[k] : "#fff";
    ctx.lineWidth = 1;
    ctx.strokeRect(x0 + 0.5, y0 + 0.5, Math.max(x1 - x0 - 1, 0), Math.max(y1 - y0 - 1, 0));
    // Where each chunk lies on the screen, for scripts that check the page.
    list.append(el("span", t.name, {"data-tile": t.name, "data-colour": fill[k],
      "data-x": (box.left + window.scrollX + (x0 + x1) / 2).toFixed(1),
      "data-y": (box.top + window.scrollY + (y0 + y1) / 2).toFixed(1)}));
  });
  list.setAttribute("data-count", tiles.length);
  legend(kind);
}

function legend(kind) {
  const panel = document.getElementById("legend");
  panel.replaceChildren();
  if (kind === "status" || kind === "pictures") {
    for (const [status, colour] of Object.entries(STATUS)) {
      const row = el("div");
      row.append(el("span", "", {class: "swatch", style: "background:" + colour}),
                 el("span", status + " (" + data.summary[status] + ")"));
      panel.append(row);
    }
    return;
  }
  const values = tiles.map(STATS[kind].value).filter(v => v !== null && v !== undefined);
  panel.append(el("div", STATS[kind].label));
  const bar = el("div", undefined, {id: "ramp"});
  bar.style.background = "linear-gradient(to right," + RAMP.map(c => hex(c)).join(",") + ")";
  panel.append(bar);
  if (values.length)
    panel.append(el("div", format(Math.min(...values), kind) + " to " + format(Math.max(...values), kind)));
}

function show(t) {
  const panel = document.getElementById("detail");
  panel.replaceChildren(el("h2", t.name), el("p", t.status + (t.points === null ? "" :
    ", " + t.points + " points, " + format(t.density, "density") + " per square unit, " +
    format(t.groundShare, "ground") + " ground")));
  if (t.thumbnail) panel.append(el("img", undefined, {src: address(t.thumbnail), alt: t.name}));
  for (const row of document.querySelectorAll("#tiles tbody tr"))
    row.classList.toggle("chosen", row.dataset.tile === t.name);
}

canvas.addEventListener("click", e => {
  const box = canvas.getBoundingClientRect();
  const x = bounds[0] + (e.clientX - box.left - MARGIN) / scale;
  const y = bounds[3] - (e.clientY - box.top - MARGIN) / scale;
  const t = tiles.find(t => x >= t.square[0] && x <= t.square[2] && y >= t.square[1] && y <= t.square[3]);
  if (t) show(t);
});

function page() {
  const s = data.summary;
  document.getElementById("folder").textContent = data.folder;
  document.getElementById("summary").textContent = s.chunks + " chunks: " + s.written + " written, " +
    s.skipped + " skipped, " + s.empty + " empty, " + s.failed + " failed; " + s.pointsRead +
    " points read, " + s.pointsWritten + " written, " + s.seconds.toFixed(1) + " s" +
    (data.mosaics.length ? "; mosaics: " + data.mosaics.join(", ") : "");
  const failures = document.getElementById("failures");
  for (const [name, message] of data.failures)
    failures.append(el("li", name + ": " + message, {class: "failed"}));
  const body = document.querySelector("#tiles tbody");
  for (const t of tiles) {
    const row = el("tr", undefined, {"data-tile": t.name});
    row.append(el("td", t.name), el("td", t.status, {class: "status"}),
               el("td", format(t.points), {"data-points": t.points === null ? "" : t.points}),
               el("td", format(t.density, "density")),
               el("td", format(t.groundShare, "ground"), {"data-ground": t.ground === null ? "" : t.ground}));
    const cell = el("td");
    if (t.thumbnail) cell.append(el("img", undefined, {src: address(t.thumbnail), alt: t.name, loading: "lazy"}));
    row.append(cell);
    row.addEventListener("click", () => show(t));
    body.append(row);
  }
  const select = document.getElementById("colour");
  select.value = data.colourBy;
  select.addEventListener("change", draw);
  draw();
}
page();
</script>
</body></html>
"""
