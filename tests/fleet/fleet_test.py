"""usage: fleet_test.py SOURCES BUILD: the metrics of monitor and server, and what prometheus/ makes of them.

Two engines play from two servers, one of which loses packets. A monitor watches both engines. A real
Prometheus with the shipped rules, which here wait one second, must raise the right alert for the right engine.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import urllib.request

import yaml

SOURCES, BUILD = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
SHIPPED = SOURCES / "prometheus"
NETWORK = {"TavistroNetworkLoss", "TavistroMissingNotices", "TavistroLateNetwork", "TavistroServerSilent"}


def get(url):
    with urllib.request.urlopen(url, timeout=5) as answer:
        return answer.read().decode()


def until(find, what, seconds=60):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            if found := find():
                return found
        except OSError:
            pass
        time.sleep(0.2)
    raise AssertionError(what() if callable(what) else what)


def promtool(*arguments, text=None):
    done = subprocess.run(["promtool", *map(str, arguments)], input=text, text=True, capture_output=True)
    assert done.returncode == 0 and not (text and done.stderr), f"promtool {arguments}: {done.stdout}{done.stderr}"


class Programs:
    def __init__(self, folder):
        self.folder, self.running = pathlib.Path(folder), []

    def start(self, name, *command):
        """The file that takes the output."""
        path = self.folder / name
        with open(path, "wb") as output:
            self.running.append(subprocess.Popen([*map(str, command)], stdout=output, stderr=output))
        return path

    def end(self):
        for process in self.running:
            process.terminate()
        for process in self.running:
            process.wait(30)


def said(path, pattern):
    return until(lambda: re.search(pattern, path.read_text()), lambda: f"{path.name} says {path.read_text()}")[1]


def families(text):
    """Name and type of each metric, as in the table of docs/fleets.md."""
    return dict(re.findall(r"^# TYPE (\S+) (\S+)$", text, re.M))


def check_names(metrics):
    """Rules, dashboard and documents name only what there is, and the documents all of it."""
    records = {rule["record"] for group in yaml.safe_load((SHIPPED / "records.yml").read_text())["groups"]
               for rule in group["rules"]}
    known = records | {"up"} | set(metrics)
    for name, kind in metrics.items():
        known |= {name + end for end in ("_bucket", "_sum", "_count")} if kind == "histogram" else set()
    for file in ["alerts.yml", "records.yml", "dashboard.json"]:
        text = (SHIPPED / file).read_text()
        named = set(re.findall(r"\btavistro[_:][a-z0-9_:]+(?=[\[{)\s\"]|$)", re.sub(r'label_values\(', "", text)))
        assert named and named <= known, f"{file} names {named - known}"
    rows = dict(re.findall(r"^\| `(tavistro_\w+)` \| (\w+) \|", (SOURCES / "docs/fleets.md").read_text(), re.M))
    assert rows == metrics, f"docs/fleets.md and the programs differ in {set(rows.items()) ^ set(metrics.items())}"
    for file in SHIPPED.glob("*.yml"):
        for page, anchor in re.findall(r"(docs/\S+\.md)#(\S+)", file.read_text()):
            assert re.search(f"^#+ {anchor}$", (SOURCES / page).read_text(), re.M | re.I), f"{page} has no {anchor}"


def check_rules(causes, folder):
    """Each alert fires for its own cause, for the engine that has it, and not before its time."""
    promtool("check", "config", SHIPPED / "prometheus.yml")
    rules = [rule for group in yaml.safe_load((SHIPPED / "alerts.yml").read_text())["groups"]
             for rule in group["rules"]]
    conditions = {f'tavistro_cause{{cause="{cause}"}}': "== 1" for cause in causes}
    conditions |= {"tavistro_cause_unclear": "== 1", 'up{job="tavistro-monitor"}': "== 0",
                   'up{job="tavistro-server"}': "== 0"}
    skipped = "tavistro_server_blocks_skipped_total"
    assert ({rule["expr"] for rule in rules} ==
            {f"{series} {test}" for series, test in conditions.items()} | {f"increase({skipped}[5m]) > 0"})
    tests = []
    for rule in rules:
        labels = {"instance": "rig", "client_id": "3"}
        series, bad = next(((series, test[-1]) for series, test in conditions.items()
                            if rule["expr"].startswith(series + " ")), (skipped, None))
        name, braces = re.match(r"([a-z_]+)(?:{(.*)})?", series).groups()
        for key, value in re.findall(r'(\w+)="(\w[\w-]*)"', braces or ""):
            labels[key] = value
        text = name + "{" + ",".join(f'{key}="{value}"' for key, value in labels.items()) + "}"
        good, after = (1 - int(bad), bad) if bad else (0, 5)  # the counter jumps
        told = {key: re.sub(r"{{ \$labels\.(\w+) }}", lambda m: labels[m[1]], words)
                for key, words in rule["annotations"].items()}
        fires = {"exp_labels": {**labels, **rule["labels"]}, "exp_annotations": told}
        fault, wait = 300, int(rule["for"][:-1]) * {"s": 1, "m": 60}[rule["for"][-1]]
        checks = [(fault - 15, []), (fault + wait + 15, [fires])]
        if wait > 15:
            checks.append((fault + wait - 15, []))
        tests.append({
            "interval": "15s",
            "input_series": [{"series": text, "values": f"{good}+0x19 {after}+0x100"},
                             {"series": text.replace('"rig"', '"other"'), "values": f"{good}+0x120"}],
            "alert_rule_test": [{"eval_time": f"{second}s", "alertname": rule["alert"], "exp_alerts": alerts}
                                for second, alerts in checks]})
    file = folder / "rules_test.yml"
    file.write_text(yaml.safe_dump({"rule_files": [str(SHIPPED / "alerts.yml")], "evaluation_interval": "15s",
                                    "tests": tests}))
    promtool("test", "rules", file)


def check_alerts(programs, monitor, servers, ids):
    for name in ["alerts.yml", "records.yml"]:
        text = re.sub(r"\bfor: \w+", "for: 1s", (SHIPPED / name).read_text())
        (programs.folder / name).write_text(text)
    config = yaml.safe_load((SHIPPED / "prometheus.yml").read_text())
    config["global"] = {"scrape_interval": "1s", "evaluation_interval": "1s"}
    (programs.folder / "prometheus.yml").write_text(yaml.safe_dump(config))
    (programs.folder / "targets").mkdir()
    for name, targets in [("monitors", [monitor]), ("servers", servers)]:
        (programs.folder / f"targets/{name}.json").write_text(json.dumps([{"targets": targets}]))
    log = programs.start("prometheus", "prometheus", f"--config.file={programs.folder}/prometheus.yml",
                         f"--storage.tsdb.path={programs.folder}/data", "--web.listen-address=127.0.0.1:0")
    address = said(log, r'msg="Listening on" address=(\S+)')

    def alerts(client_id):
        return {alert["labels"]["alertname"] for alert in json.loads(get(f"http://{address}/api/v1/alerts"))
                ["data"]["alerts"] if alert["labels"].get("client_id") == client_id and alert["state"] == "firing"}

    until(lambda: "TavistroNetworkLoss" in alerts(ids[0]), lambda: f"the lossy engine has {alerts(ids[0])}")
    assert not alerts(ids[1]) & NETWORK, f"the other engine has {alerts(ids[1])}"
    up = json.loads(get(f"http://{address}/api/v1/query?query=up"))["data"]["result"]
    assert [sample["value"][1] for sample in up] == ["1"] * 3, up
    for process in programs.running[:2]:
        process.terminate()  # the servers
    until(lambda: "TavistroServerSilent" in alerts(ids[1]), lambda: f"without a server: {alerts(ids[1])}")


def main():
    with tempfile.TemporaryDirectory() as folder:
        programs = Programs(folder)
        try:
            ids = ["1610001", "1610002"]
            logs = [programs.start(f"server{i}", BUILD / "tavistro-server", "--port", 0, "--metrics", 0, *faults)
                    for i, faults in enumerate([["--drop", 4, "--measure", "0:2", "--melody", 0], []])]
            for log, client_id in zip(logs, ids):
                config = programs.folder / f"{client_id}.ini"
                port = said(log, r"listening on UDP port (\d+)")
                config.write_text("[network]\nserver_ip = 127.0.0.1\n"
                                  f"server_port = {port}\nclient_id = {client_id}\n[asio]\ndriver_name =\n[latency]\n"
                                  "client_latency_blocks = 32\n[test]\nloopback_device = on\n")
                programs.start(client_id, BUILD / "tavistro-host", "run", config)
            monitor = said(programs.start("monitor", BUILD / "tavistro-monitor", *ids, "--http", 0, "--json"),
                           r"http://(localhost:\d+)/")
            servers = [said(log, r"http://(localhost:\d+)/metrics") for log in logs]
            until(lambda: re.search(r'round_trip_seconds_count{client_id="1610002"} [1-9]',
                                    get(f"http://{monitor}/metrics")), "no round trip is measured")
            until(lambda: re.search(r"server_round_trip_seconds{", get(f"http://{servers[0]}/metrics")),
                  "the server measures no round trip")
            pages = [get(f"http://{where}/metrics") for where in [monitor, servers[0]]]
            for page in pages:
                promtool("check", "metrics", text=page)
            check_names(families(pages[0]) | families(pages[1]))
            check_rules(set(re.findall(r'tavistro_cause{.*?cause="(\w+)"', pages[0])), programs.folder)
            check_alerts(programs, monitor, servers, ids)
        finally:
            programs.end()


main()
