"""Draws bench/peers.png from bench/out/peers.json (written by bench/peers.py):
the library's speed against each peer, median with the range over rounds.
Runs in the chart-only environment, bench/.venv-chart."""
import json
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

HERE = os.path.dirname(os.path.abspath(__file__))
data = json.load(open(os.path.join(HERE, "out", "peers.json")))

rows = []  # (label, spread, target)
for p in data.get("llm", []):
    target = 1.15 if p["default"] else None
    rows.append((f"LLM tok/s vs llama.cpp, {p['label']} ({os.path.basename(p['library_model'])})", p["tps_ratio"], target))
    rows.append((f"LLM first token vs llama.cpp, {p['label']}", p["ttft_ratio"], None))
for name, e in data.get("whisper", {"engines": {}})["engines"].items():
    if name != "library":
        rows.append((f"Whisper speed vs {name}", e["speed_ratio"], 2.0 if name == "faster-whisper int8" else None))

fig, ax = plt.subplots(figsize=(9, 0.45 * len(rows) + 1.2))
for i, (label, s, target) in enumerate(rows):
    ax.errorbar(s["median"], i, xerr=[[s["median"] - s["low"]], [s["high"] - s["median"]]], fmt="o", capsize=4,
                color="tab:green" if target is None or s["median"] >= target else "tab:red")
    if target:
        ax.plot([target, target], [i - 0.35, i + 0.35], color="black", linewidth=2)
ax.axvline(1.0, color="grey", linestyle=":")
ax.set_yticks(range(len(rows)), [r[0] for r in rows])
ax.invert_yaxis()
ax.set_xlabel("library ÷ peer speed (median, range over rounds; black bar: target)")
ax.set_title(f"Library against its peers ({data['started']}, {data['rounds']} rounds)")
fig.tight_layout()
fig.savefig(os.path.join(HERE, "peers.png"), dpi=110)
