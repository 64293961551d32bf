"""Draws bench/ratios.png from the summary run.py wrote (bench/out/ratios.json).
Runs in the chart-only environment, so the runtime's environment stays as pinned."""
import json
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

HERE = os.path.dirname(os.path.abspath(__file__))
data = json.load(open(os.path.join(HERE, "out", "ratios.json")))

speed = [
    ("share_stream", "Library's own time bound: StreamModel"),
    ("share_query", "Library's own time bound: QueryModel (LLM)"),
    ("share_whisper", "Library's own time bound: QueryModel (Whisper)"),
    ("tp_c_stream_vs_direct_stream", "Throughput: C host stream / direct + streamer"),
    ("tp_c_query_vs_direct_plain", "Throughput: C host query / direct plain"),
    ("tp_py_stream_vs_direct_stream", "Throughput: library stream (one process) / direct + streamer"),
    ("tp_py_query_vs_direct_plain", "Throughput: library query (one process) / direct plain"),
    ("ttfp_c_vs_direct", "First piece: direct / C host"),
    ("ttfp_py_vs_direct", "First piece: direct / library (one process)"),
    ("tp_pkg_stream_vs_direct_stream", "Throughput: Python package stream / direct + streamer"),
    ("tp_pkg_query_vs_direct_plain", "Throughput: Python package generate / direct plain"),
    ("ttfp_pkg_vs_direct", "First piece: direct / Python package"),
    ("rtf_pkg_vs_direct", "Whisper RTF: direct / Python package"),
    ("rtf_py_vs_direct", "Whisper RTF: direct / library (one process)"),
    ("rtf_py_vs_direct_streamer", "Whisper RTF: direct + streamer / library (one process)"),
    ("rtf_c_vs_direct", "Whisper RTF: direct / C host (separate processes)"),
]
memory = [
    ("rss_py_vs_direct", "RSS after init: Python host / direct"),
    ("rss_c_vs_direct", "RSS after init: C host / direct"),
]


def panel(ax, rows, target, title, better):
    rows = [row for row in rows if row[0] in data]  # the package rows exist only with the package
    labels = [label for _, label in rows][::-1]
    values = [data[key] for key, _ in rows][::-1]
    y = range(len(rows))
    med = [v[0] for v in values]
    err = [[v[0] - v[1] for v in values], [v[2] - v[0] for v in values]]
    ax.barh(y, med, xerr=err, color="#4c78a8", capsize=3)
    ax.axvline(1.0, color="black", linewidth=0.8)
    ax.axvline(target, color="#e45756", linestyle="--", linewidth=1, label=f"target ({better} {target})")
    ax.set_yticks(list(y))
    ax.set_yticklabels(labels, fontsize=8)
    low = min(min(v[1] for v in values), target) - 0.03
    high = max(max(v[2] for v in values), 1.0, target) + 0.03
    ax.set_xlim(low, high)
    ax.set_title(title, fontsize=10)
    ax.legend(fontsize=8, loc="lower right")


fig, (top, bottom) = plt.subplots(2, 1, figsize=(9, 8), gridspec_kw={"height_ratios": [len(speed), len(memory) + 1]})
panel(top, speed, 0.99, "Speed ratios (1 = same as the runtime directly; higher is better)", "≥")
panel(bottom, memory, 1.05, "Memory ratios (lower is better)", "≤")
bottom.set_xlabel("ratio (bar: median over rounds, whiskers: min – max)")
fig.tight_layout()
out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "ratios.png")
fig.savefig(out, dpi=110)
print(out)
