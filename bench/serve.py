"""The HTTP server against the runtime called directly from Python, in one
run: requests/s and p50/p95 latency for 1, 2 and 4 concurrent clients, and
the time from a client leaving a stream to its handle serving the next
request. Prints a Markdown table.

    .venv/bin/python bench/serve.py [--model models/smollm2] [--requests 12] [--tokens 32]"""
import argparse
import concurrent.futures
import json
import os
import socket
import statistics
import subprocess
import sys
import time
from pathlib import Path

import httpx2 as httpx

CHECKOUT = Path(__file__).resolve().parents[1]
PROMPT = "Once upon a time"

# The peer: the runtime's own pipeline, greedy, in a plain loop.
DIRECT = """
import json, sys, time, openvino_genai
model, tokens, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
pipe = openvino_genai.LLMPipeline(model, "CPU")
config = pipe.get_generation_config()
config.max_new_tokens = tokens
pipe.generate(sys.argv[4], config)
times = []
begun = time.perf_counter()
for _ in range(count):
    start = time.perf_counter()
    pipe.generate(sys.argv[4], config)
    times.append(time.perf_counter() - start)
print(json.dumps({"times": times, "wall": time.perf_counter() - begun}))
"""


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, round(share * (len(ordered) - 1)))]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--model", default=str(CHECKOUT / "models/smollm2"))
    parser.add_argument("--requests", type=int, default=12)
    parser.add_argument("--tokens", type=int, default=32)
    args = parser.parse_args()

    direct = json.loads(subprocess.run([sys.executable, "-c", DIRECT, args.model, str(args.tokens), str(args.requests),
                                        PROMPT], capture_output=True, text=True, check=True).stdout.splitlines()[-1])
    rows = [("runtime directly, 1 loop", 1, args.requests / direct["wall"], direct["times"])]

    port = free_port()
    url = f"http://127.0.0.1:{port}"
    server = subprocess.Popen([sys.executable, "-m", "velmora.server", "--llm", f"m={args.model}", "--port", str(port),
                               "--parallel", "2", "--queue", "16", "--context", "100000", "--log-level", "warning"],
                              env=dict(os.environ, PYTHONPATH=str(CHECKOUT / "python")))
    try:
        while True:
            try:
                if httpx.get(url + "/health").status_code == 200:
                    break
            except httpx.HTTPError:
                pass
            assert server.poll() is None
            time.sleep(0.2)
        body = {"model": "m", "prompt": PROMPT, "max_tokens": args.tokens}

        def ask(_):
            start = time.perf_counter()
            answer = httpx.post(url + "/v1/completions", json=body, timeout=300)
            answer.raise_for_status()
            return time.perf_counter() - start

        ask(0)
        for clients in (1, 2, 4):
            begun = time.perf_counter()
            with concurrent.futures.ThreadPoolExecutor(clients) as pool:
                times = list(pool.map(ask, range(args.requests)))
            rows.append((f"server, {clients} client{'s' * (clients > 1)}", clients,
                         args.requests / (time.perf_counter() - begun), times))

        # A stream left after its first pieces, then a one-token request:
        # its latency less that of the same request on an idle server.
        one = {**body, "max_tokens": 1}
        idle = statistics.median(httpx.post(url + "/v1/completions", json=one, timeout=60).elapsed.total_seconds()
                                 for _ in range(5))
        freed = []
        for _ in range(5):
            with httpx.stream("POST", url + "/v1/completions", json={**body, "max_tokens": 50000, "stream": True},
                              timeout=60) as stream:
                lines = stream.iter_lines()
                for _ in range(6):
                    next(lines)
            left = time.perf_counter()
            with concurrent.futures.ThreadPoolExecutor(2) as pool:  # both handles: one is the left one
                list(pool.map(lambda _: httpx.post(url + "/v1/completions", json=one, timeout=60), range(2)))
            freed.append(time.perf_counter() - left - idle)
    finally:
        server.terminate()
        server.wait()

    base = rows[0][2]
    print(f"{args.requests} requests of {args.tokens} tokens, greedy, on {Path(args.model).name}; the server with "
          "--parallel 2. The machine is shared with other work: compare within this run only.\n")
    print("| | requests/s | x runtime | p50 latency | p95 latency |\n|---|---|---|---|---|")
    for name, _, rate, times in rows:
        print(f"| {name} | {rate:.2f} | {rate / base:.2f} | {percentile(times, 0.5) * 1000:.0f} ms | "
              f"{percentile(times, 0.95) * 1000:.0f} ms |")
    print(f"\nDisconnect to free handle (extra latency of the next request, median of 5): "
          f"{statistics.median(freed) * 1000:.0f} ms (idle one-token request: {idle * 1000:.0f} ms)")


if __name__ == "__main__":
    main()
