"""Prometheus metrics: requests by endpoint and status, latency, time to the
first piece, tokens, and how many requests wait for each model."""
from __future__ import annotations

import time
from collections.abc import Callable, Iterator, Mapping
from typing import Any

from prometheus_client import CollectorRegistry, Counter, Histogram
from prometheus_client.core import GaugeMetricFamily, Metric
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from .pool import Pool

Pools = Callable[[], Mapping[str, Pool[Any]]]

_SECONDS = (0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60, 120)


class _Queues:
    def __init__(self, pools: Pools):
        self._pools = pools

    def collect(self) -> Iterator[Metric]:
        depth = GaugeMetricFamily("velmora_queue_depth", "Requests waiting for a free model handle",
                                  labels=["model"])
        for name, pool in self._pools().items():
            depth.add_metric([name], pool.waiting)
        yield depth


class Metrics:
    def __init__(self, registry: CollectorRegistry, pools: Pools):
        self.requests = Counter("velmora_requests", "HTTP requests by endpoint and status",
                                ["endpoint", "status"], registry=registry)
        self.latency = Histogram("velmora_request_seconds", "Time from request to the end of the response",
                                 ["endpoint"], buckets=_SECONDS, registry=registry)
        self.first_token = Histogram("velmora_time_to_first_token_seconds",
                                     "Time from request to the first generated piece", ["model"],
                                     buckets=_SECONDS, registry=registry)
        self.generated = Counter("velmora_generated_tokens", "Tokens generated", ["model"], registry=registry)
        self.prompted = Counter("velmora_prompt_tokens", "Prompt tokens read", ["model"], registry=registry)
        registry.register(_Queues(pools))
        metrics = self

        class Middleware:
            """Counts every response once it has been sent, under its route
            (not its raw path, which a caller could make endless)."""

            def __init__(self, app: ASGIApp):
                self.app = app

            async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
                if scope["type"] != "http":
                    await self.app(scope, receive, send)
                    return
                begun, status = time.perf_counter(), [500]

                async def sending(message: Message) -> None:
                    if message["type"] == "http.response.start":
                        status[0] = message["status"]
                    await send(message)

                try:
                    await self.app(scope, receive, sending)
                finally:
                    endpoint = getattr(scope.get("route"), "path", "other")
                    metrics.requests.labels(endpoint, str(status[0])).inc()
                    metrics.latency.labels(endpoint).observe(time.perf_counter() - begun)

        self.middleware = Middleware

    def count_tokens(self, model: str, usage: dict[str, int]) -> None:
        self.generated.labels(model).inc(usage["completion_tokens"])
        self.prompted.labels(model).inc(usage["prompt_tokens"])
