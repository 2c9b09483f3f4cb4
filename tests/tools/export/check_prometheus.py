"""Checks qev export, the dashboard and the alerts against a real Prometheus.

usage: check_prometheus.py QEV SOURCE_FOLDER

Runs a chain over a ring, a block and a semaphore; an exporter; and a Prometheus that scrapes it.
Exit status 77 where Prometheus cannot be had.
"""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

QEV, SOURCE = sys.argv[1:]
DASHBOARD = os.path.join(SOURCE, "share/grafana/qev.json")
RULES = os.path.join(SOURCE, "share/prometheus/qev.rules.yml")
ALERT_TESTS = os.path.join(SOURCE, "tests/tools/export/alerts.yml")
NAME = f"qev-test-{os.getpid()}-export"
PAYLOAD = 1000
HEADER = 26
PACKETS = 2  # at a time
PATIENCE = 60  # seconds, of a wait that ends the test

processes = []


def start(*arguments, **streams):
    process = subprocess.Popen(arguments, **streams)
    processes.append(process)
    return process


def clean_up(folder):
    for process in processes:
        if process.poll() is None:
            process.kill()
            process.wait()
    shutil.rmtree(folder, ignore_errors=True)
    for path in (f"/dev/shm/{NAME}.shm", f"/dev/shm/sem.{NAME}", f"/tmp/{NAME}_shm.lock"):
        if os.path.exists(path):
            os.unlink(path)


def require(holds, what):
    if not holds:
        raise SystemExit(f"FAILED: {what}")


def wait_until(condition, what):
    """Asks again and again; what `condition` gives in the end."""
    deadline = time.monotonic() + PATIENCE
    while True:
        result = condition()
        if result:
            return result
        require(time.monotonic() < deadline, f"waited in vain: {what}")
        time.sleep(0.02)


def get(url):
    with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
        return answer.read().decode()


class Prometheus:
    def __init__(self, programs, folder, target):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.address = "127.0.0.1:%d" % probe.getsockname()[1]
        configuration = os.path.join(folder, "prometheus.yml")
        with open(configuration, "w", encoding="utf-8") as file:
            json.dump(  # YAML as well
                {
                    "global": {"scrape_interval": "500ms", "scrape_timeout": "500ms",
                               "evaluation_interval": "500ms"},
                    "rule_files": [RULES],
                    "scrape_configs": [
                        {"job_name": "qev", "static_configs": [{"targets": [target]}]}],
                }, file)
        self.process = start(
            os.path.join(programs, "prometheus"), "--config.file=" + configuration,
            "--storage.tsdb.path=" + os.path.join(folder, "data"),
            "--web.listen-address=" + self.address, "--log.level=error")

    def ask(self, what, **arguments):
        url = f"http://{self.address}/api/v1/{what}?" + urllib.parse.urlencode(arguments)
        answer = json.loads(get(url))
        require(answer["status"] == "success", f"{url}: {answer}")
        return answer["data"]

    def is_ready(self):
        require(self.process.poll() is None, "prometheus has ended")
        try:
            return bool(self.ask("targets")["activeTargets"])
        except OSError:
            return False

    def query(self, expression):
        try:
            return self.ask("query", query=expression)["result"]
        except urllib.error.HTTPError as refusal:
            raise SystemExit(f"FAILED: {expression}: {refusal.read().decode()}") from refusal

    def value(self, expression):
        result = self.query(expression)
        return float(result[0]["value"][1]) if len(result) == 1 else None


def dashboard_expressions():
    """All expressions of the dashboard, with its variables replaced."""
    with open(DASHBOARD, encoding="utf-8") as file:
        dashboard = json.load(file)
    variables = {"$__rate_interval": "5s", "$instance": ".*", "$ring": NAME}
    known = {"$" + variable["name"] for variable in dashboard["templating"]["list"]}
    expressions = []
    for panel in dashboard["panels"]:
        for target in panel.get("targets", []):
            expression = target["expr"]
            for name, value in variables.items():
                require(name in known or name.startswith("$__"), f"{name} is no variable")
                expression = expression.replace(name, value)
            require("$" not in expression, f"an unknown variable in {expression}")
            expressions.append(expression)
    for variable in dashboard["templating"]["list"]:
        query = variable.get("definition", "")
        if query:
            series = re.fullmatch(r"label_values\((.*), (\w+)\)", query)
            require(series, f"{query} is not understood")
            expressions.append(f"count by ({series[2]}) ({series[1]})".replace("$instance", ".*"))
    return dashboard, expressions


def check_layout(dashboard):
    panels = dashboard["panels"]
    require(len({panel["id"] for panel in panels}) == len(panels), "panels share an id")
    cells = set()
    for panel in panels:
        place = panel["gridPos"]
        require(place["x"] + place["w"] <= 24, f"{panel['title']} is too wide")
        for x in range(place["x"], place["x"] + place["w"]):
            for y in range(place["y"], place["y"] + place["h"]):
                require((x, y) not in cells, f"{panel['title']} lies over another panel")
                cells.add((x, y))


def promtool(programs, *arguments, **streams):
    run = subprocess.run([os.path.join(programs, "promtool"), *arguments], check=False, text=True,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **streams)
    require(run.returncode == 0, f"promtool {' '.join(arguments)}:\n{run.stdout}")
    return run.stdout


def check_rules(programs, folder):
    promtool(programs, "check", "rules", RULES)
    shutil.copy(RULES, folder)
    shutil.copy(ALERT_TESTS, folder)
    promtool(programs, "test", "rules", os.path.join(folder, "alerts.yml"))


def start_exporter():
    exporter = start(QEV, "export", "--listen", "127.0.0.1:0", "--name", NAME,
                     stdout=subprocess.PIPE, text=True)
    said = re.fullmatch(r"metrics at (http://(127\.0\.0\.1:\d+)/metrics)\n",
                        exporter.stdout.readline())
    require(said, "the exporter does not say where the metrics are")
    return exporter, said[1], said[2]


def run_chain(prometheus, expressions, exporter_url):
    """Sends packets until every expression has given data; how many that were."""
    ring = ["--name", NAME, "--size", "64MiB", "--max-frames", "1000", "--wait", "sleep"]
    consumer = start(QEV, "consume", *ring, "--node", "1", "--output", "/dev/null",
                     stderr=subprocess.DEVNULL)
    wait_until(lambda: f'qev_ring_moved_packets_total{{ring="{NAME}",node="1"}} 0' in
               get(exporter_url), "the exporter measures the ring")
    producer = start(QEV, "produce", *ring, "--packet", str(PAYLOAD), stdin=subprocess.PIPE,
                     stderr=subprocess.DEVNULL)
    missing = list(expressions)
    sent = 0

    def send_and_ask():
        nonlocal sent
        producer.stdin.write(bytes(PACKETS * PAYLOAD))
        producer.stdin.flush()
        sent += PACKETS
        missing[:] = [each for each in missing if not prometheus.query(each)]
        return not missing

    try:
        wait_until(send_and_ask, "data for all expressions of the dashboard")
    except SystemExit as failure:
        raise SystemExit(f"{failure}; there is none for {missing}") from failure
    producer.stdin.close()
    require(producer.wait() == 0 and consumer.wait() == 0, "the chain has failed")
    return sent


def check_totals(prometheus, sent):
    labels = f'{{ring="{NAME}",node="%s"}}'
    packets = sent + 1  # and the end of the stream
    size = sent * (HEADER + PAYLOAD) + HEADER
    for node in "0", "1":
        series = "qev_ring_moved_packets_total" + labels % node
        wait_until(lambda: prometheus.value(series) == packets,
                   f"{series} is {packets}")
        require(prometheus.value("qev_ring_moved_bytes_total" + labels % node) == size,
                f"node {node} has moved {size} bytes")
    ring = f'{{ring="{NAME}"}}'
    require(prometheus.value("qev_ring_totals_exact" + ring) == 1, "totals are exact")
    require(prometheus.value("qev_ring_free_bytes" + ring) ==
            prometheus.value("qev_ring_size_bytes" + ring) == 64 << 20, "the ring is empty")
    require(prometheus.value("qev_ring_packet_limit" + ring) == 1001, "the limit is 1001")
    wait_until(lambda: prometheus.value("qev_ring_users" + ring) == 0, "nobody uses the ring")
    require(prometheus.value("qev_block_size_bytes") == 4096, "the block has 4096 bytes")
    require(prometheus.value("qev_semaphore_value") == 3, "the semaphore has 3 units")


def check_prometheus_is_content(prometheus):
    def is_up():
        target, = prometheus.ask("targets")["activeTargets"]
        return target["health"] == "up" and not target["lastError"]

    wait_until(is_up, "the target is up")
    rules, = prometheus.ask("rules")["groups"]
    for rule in rules["rules"]:
        require(rule["health"] == "ok", f"the rule {rule['name']} is evaluated: {rule}")


def main(programs, folder):
    dashboard, expressions = dashboard_expressions()
    check_layout(dashboard)
    check_rules(programs, folder)
    subprocess.run([QEV, "sem", "post", NAME, "--count", "3"], check=True)
    start(QEV, "block", "write", NAME, "--size", "4096", stdin=subprocess.DEVNULL,
          stderr=subprocess.DEVNULL)
    exporter, url, target = start_exporter()
    prometheus = Prometheus(programs, folder, target)
    wait_until(prometheus.is_ready, "prometheus answers")
    sent = run_chain(prometheus, expressions, url)
    check_totals(prometheus, sent)
    check_prometheus_is_content(prometheus)
    complaints = promtool(programs, "check", "metrics", input=get(url))
    require(complaints == "", f"promtool check metrics:\n{complaints}")

    os.unlink(f"/dev/shm/{NAME}.shm")
    wait_until(lambda: not prometheus.query(f'{{ring="{NAME}"}}'),
               "the metrics of the removed ring vanish")
    require(prometheus.query("qev_shm_size_bytes"), "those of the machine stay")
    exporter.send_signal(signal.SIGTERM)
    require(exporter.wait() == 0, "the exporter ends in order")
    print(f"{len(expressions)} expressions, {sent} packets")


def run():
    got = subprocess.run([os.path.join(SOURCE, "scripts/get-prometheus")], check=False, text=True,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if got.returncode != 0:
        print(got.stderr.strip() or got.stdout.strip())
        sys.exit(77)
    folder = tempfile.mkdtemp(prefix="qev-test-")
    try:
        main(got.stdout.strip(), folder)
    finally:
        clean_up(folder)


run()
