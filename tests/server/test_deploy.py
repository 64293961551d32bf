"""The server as deployed: two replicas behind the example's nginx, its page in a browser."""
import concurrent.futures
import re
import subprocess
import tempfile
import time
from pathlib import Path

import httpx2 as httpx
from conftest import CHECKOUT, free_port, wait_healthy


def test_replicas_behind_nginx(serve, models):
    ports = [free_port(), free_port()]
    front = free_port()
    config = (CHECKOUT / "examples/nginx/nginx.conf").read_text()
    config = config.replace("127.0.0.1:8001", f"127.0.0.1:{ports[0]}").replace("127.0.0.1:8002", f"127.0.0.1:{ports[1]}")
    config = config.replace("127.0.0.1:8080", f"127.0.0.1:{front}")
    with serve("--llm", models / "tiny-llm", port=ports[0]) as (first, doomed), \
            serve("--llm", models / "tiny-llm", port=ports[1]) as (second, _), \
            tempfile.TemporaryDirectory() as prefix:
        (Path(prefix) / "nginx.conf").write_text(config)
        nginx = subprocess.Popen(["nginx", "-p", prefix, "-c", f"{prefix}/nginx.conf"])
        try:
            url = f"http://127.0.0.1:{front}"
            wait_healthy(url, nginx)

            def ask(_):
                return httpx.post(url + "/v1/completions", timeout=60,
                                  json={"model": "tiny-llm", "prompt": "Once", "max_tokens": 40})

            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                assert all(a.status_code == 200 for a in pool.map(ask, range(8)))
                served = [re.search(r'requests_total{endpoint="/v1/completions",status="200"} (\d+)',
                                    httpx.get(u + "/metrics").text) for u in (first, second)]
                assert all(served) and sum(int(s[1]) for s in served) == 8  # each replica answered some
                later = [pool.submit(ask, i) for i in range(12)]
                time.sleep(0.3)
                doomed.kill()
                assert [f.result().status_code for f in later] == [200] * 12
            with httpx.stream("POST", url + "/v1/completions", timeout=60, json={
                    "model": "tiny-llm", "prompt": "Once", "max_tokens": 5, "stream": True}) as streamed:
                assert list(streamed.iter_lines())[-2] == "data: [DONE]"
        finally:
            nginx.terminate()
            nginx.wait(10)


def test_page_in_a_browser(serve, models, request):
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    options = webdriver.ChromeOptions()
    for flag in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu"):
        options.add_argument(flag)
    options.binary_location = "/usr/bin/chromium"
    service = webdriver.ChromeService(executable_path="/usr/bin/chromedriver")
    with serve("--llm", models / "tiny-llm", "--max-tokens", 100) as (url, _):
        browser = webdriver.Chrome(options=options, service=service)
        try:
            browser.get(url)
            WebDriverWait(browser, 30).until(lambda b: b.find_element(By.ID, "llm").get_attribute("value"))
            browser.find_element(By.ID, "question").send_keys("What is the capital of France?")
            browser.find_element(By.ID, "send").click()
            def answer(b):
                return "".join(p.text for p in b.find_elements(By.CSS_SELECTOR, "#log p.answer"))

            def streaming(b):
                return b.find_element(By.ID, "stop").get_attribute("disabled") is None

            # Text on the page while the answer is still streaming, then more of it.
            partial = WebDriverWait(browser, 60, poll_frequency=0.05).until(
                lambda b: (text := answer(b)) and streaming(b) and text)
            WebDriverWait(browser, 120).until(lambda b: not streaming(b))
            assert answer(browser).startswith(partial) and len(answer(browser)) > len(partial)
            browser.save_screenshot(str(Path(request.config.getoption("--artifacts")) / "server-page.png"))
        finally:
            browser.quit()
