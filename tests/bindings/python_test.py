"""usage: python_test.py BUILD_FOLDER: installs the wheel with pip and uses the package with a real server."""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

build = pathlib.Path(sys.argv.pop(1)).resolve()
work = tempfile.TemporaryDirectory()
folder = pathlib.Path(work.name)
subprocess.run([sys.executable, "-m", "pip", "--quiet", "install", "--no-index", "--no-deps", "--target", folder / "site",
                *(build / "bindings").glob("*.whl")], check=True, env=os.environ | {"PIP_ROOT_USER_ACTION": "ignore"})
sys.path.insert(0, str(folder / "site"))
import tavistro  # noqa: E402
from tavistro import ErrorCode, EventKind, MessageId, StateCode  # noqa: E402

CLIENT_ID = 4711


def until(condition, what):
    for _ in range(300):
        if result := condition():
            return result
        time.sleep(0.1)
    raise AssertionError(what)


def write_config(port, client_id=CLIENT_ID):
    path = folder / f"ä{client_id}.ini"
    path.write_text(f"[network]\nserver_ip = 127.0.0.1\nserver_port = {port}\nclient_id = {client_id}\n"
                    "discovery_timeout_ms = 1\n[tavistro]\ndriver_inputs = 5, 6\ndriver_outputs = 3\n"
                    "[asio]\ndriver_name =\ninput_map = 0, 1\noutput_map = 0\n[test]\nloopback_device = on\n")
    return path


class WithServer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = subprocess.Popen([build / "tavistro-server", "--port", "0", "--json", "--tone", "3=440@0.5",
                                       "--frames", "256"], stdout=subprocess.PIPE, text=True)
        cls.config = write_config(re.search(r'"port":(\d+)', cls.server.stdout.readline())[1])

    @classmethod
    def tearDownClass(cls):
        cls.server.kill()
        cls.server.communicate()

    def test_a_run_has_its_whole_record_and_statistics(self):
        with tavistro.Engine() as engine:
            self.assertEqual(engine.state().state, StateCode.IDLE)
            engine.start(self.config)
            state = engine.wait_until_running(10)
            self.assertEqual((state.client_id, state.stream_sample_rate, state.device_block_frames), (4711, 48000, 256))
            self.assertEqual((state.status_message, state.error_code), (MessageId.RUNNING, ErrorCode.NONE))
            meters = until(lambda: (now := engine.state()).output_meters[0].peak_permille > 400 and now, "no peak")
            self.assertEqual([meter.channel for meter in meters.input_meters], [5, 6])
            self.assertAlmostEqual(meters.output_meters[0].peak_permille, 500, delta=2)
            first = until(lambda: (now := tavistro.statistics(CLIENT_ID)) and now.rendered_frames and now, "no report")
            self.assertEqual((first.state, first.stream_block_frames), (StateCode.RUNNING, 256))
            until(lambda: tavistro.statistics(CLIENT_ID).rendered_frames > first.rendered_frames, "no other report")
            self.assertIn(CLIENT_ID, tavistro.client_ids())
            with self.assertRaises(tavistro.StartRefused) as refused:
                engine.start(self.config)
            self.assertEqual(refused.exception.code, ErrorCode.ALREADY_STARTED)
            with self.assertRaises(tavistro.EngineError):
                tavistro.Engine()
        self.assertIsNone(tavistro.statistics(CLIENT_ID))
        with self.assertRaises(tavistro.EngineError):
            engine.state()

    def test_following_ends_with_a_stop_by_another_thread(self):
        with tavistro.Engine() as engine:
            for _ in range(2):
                engine.start(self.config)
                engine.wait_until_running(10)
                threading.Timer(0.3, engine.stop).start()
                states = [update.state.state for update in engine.follow(0.01)]
                self.assertEqual((states[0], states[-1]), (StateCode.RUNNING, StateCode.STOPPED))

    def test_the_example_in_the_documents(self):
        page = (pathlib.Path(__file__).parents[2] / "docs/bindings.md").read_text()
        (folder / "tavistro.ini").write_bytes(self.config.read_bytes())
        example = subprocess.Popen([sys.executable, "-u", "-c", re.search(r"```python\n(.*?)```", page, re.S)[1]], text=True,
                                   cwd=folder, env=os.environ | {"PYTHONPATH": folder / "site"}, stdout=subprocess.PIPE)
        self.assertEqual(example.stdout.readline(), "playing 48000 Hz\n")
        self.assertRegex(example.stdout.readline(), r"^Running normally \[\d+\]\n$")
        example.send_signal(signal.SIGINT)
        example.communicate()
        self.assertEqual(example.returncode, 0)

    def test_statistics_agree_with_the_monitor_in_every_field(self):
        host = subprocess.Popen([build / "tavistro-host", "run", write_config(self.config.read_text().split()[6], 4712)],
                                stdout=subprocess.DEVNULL)
        self.addCleanup((block := pathlib.Path("/dev/shm/TavistroEngineStats_4712_v6")).unlink)
        until(lambda: (now := tavistro.statistics(4712)) and now.rtt_samples and now.rendered_frames, "no report")
        handles = os.listdir("/proc/self/fd")
        self.assertTrue(tavistro.is_alive(4712) and tavistro.statistics(4712))
        self.assertEqual(os.listdir("/proc/self/fd"), handles)
        host.kill()
        host.wait()
        self.assertFalse(tavistro.is_alive(4712))
        monitor = subprocess.run([build / "tavistro-monitor", "4712", "--once", "--json"], capture_output=True, text=True)
        seen = {name: value for name, value in json.loads(monitor.stdout)["stats"].items() if not name.endswith("_text")}
        read = {name: list(value) if isinstance(value, tuple) else value
                for name, value in vars(tavistro.statistics(4712)).items()}
        self.assertEqual(read, seen)
        block.write_bytes(b"TENG\x06\0\0\0" + b"\xff" * 280)
        self.assertEqual(tavistro.statistics(4712).state.text, "code 4294967295")
        for forged in b"TENG\x07\0\0\0" + bytes(280), b"XENG\x06\0\0\0" + bytes(280), b"TENG\x06\0\0\0":
            block.write_bytes(forged)
            self.assertIsNone(tavistro.statistics(4712))


class Faults(unittest.TestCase):
    def test_events_that_were_dropped_are_counted(self):
        with tavistro.Engine() as engine:
            engine.start(write_config(9))
            reader = tavistro.EventReader()
            first = until(lambda: reader.read(engine.state()), "no event")
            self.assertEqual([event.sequence for event in first], [*range(1, len(first) + 1)])
            with self.assertRaises(tavistro.RunFailed) as failed:
                engine.wait_until_running(30)
            self.assertEqual(failed.exception.code, ErrorCode.CLIENT_START_FAILED)
            self.assertRegex(str(failed.exception), "network client did not start")
            last = reader.read(engine.state())
            self.assertEqual(len(first) + reader.missed + len(last), last[-1].sequence)
            self.assertEqual((len(last), last[-1].kind), (8, EventKind.GAVE_UP))
            self.assertEqual(reader.read(engine.state()), [])

    def test_a_run_that_failed_can_be_started_again(self):
        handles = len(os.listdir("/proc/self/fd"))
        for _ in range(20):
            with tavistro.Engine() as engine:
                for path in folder / "missing.ini", os.fsencode(folder):
                    engine.start(path)
                    updates = list(engine.follow(0.01))
                    self.assertEqual(updates[-1].state.error_code, ErrorCode.CONFIG_INVALID)
                with self.assertRaises(tavistro.StartRefused) as refused:
                    engine.start("")
                self.assertEqual(refused.exception.code, ErrorCode.NO_CONFIG_PATH)
        self.assertEqual(len(os.listdir("/proc/self/fd")), handles)

    def test_types(self):
        checked = subprocess.run(["/usr/bin/mypy", "--strict", "--cache-dir", folder / "mypy", folder / "site/tavistro"],
                                 capture_output=True, text=True)
        self.assertEqual(checked.returncode, 0, checked.stdout)


unittest.main()
