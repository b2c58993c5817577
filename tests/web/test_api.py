#!/usr/bin/python3
"""`zeptick serve` on the default emulator through its JSON API: answers against the emulator's
configuration, refusals naming the field, the token, the recording directory, many clients."""
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

TOOLS = sys.argv.pop(1)

# The tests talk only to this machine; a proxy from the environment must not intervene.
_opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))


class Server:
    def __init__(self, tools, *args, emulator="default"):
        command = [f"{tools}/zeptick", "--emulator", emulator, "serve", "--port", "0", *args]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        line = self.process.stdout.readline()
        found = re.search(r"(http://\S+?:\d+/)", line)
        if not found:
            self.process.kill()
            raise RuntimeError(f"no address printed: {line!r} {self.process.stderr.read()}")
        self.url = found.group(1)

    def request(self, method, path, body=None, headers=None, raw=None):
        """(status, parsed JSON or text) of one request."""
        data = raw if raw is not None else (None if body is None else json.dumps(body).encode())
        req = urllib.request.Request(self.url + path.lstrip("/"), data=data, method=method,
                                     headers=headers or {})
        try:
            with _opener.open(req, timeout=10) as response:
                status, text = response.status, response.read().decode()
        except urllib.error.HTTPError as error:
            status, text = error.code, error.read().decode()
        try:
            return status, json.loads(text)
        except ValueError:
            return status, text

    def get(self, path, **kw):
        return self.request("GET", path, **kw)

    def post(self, path, body=None, **kw):
        return self.request("POST", path, body if body is not None else {}, **kw)

    def events(self, count, token=None):
        """The first `count` server-sent events, parsed, and the monotonic time each arrived."""
        query = f"?token={token}" if token else ""
        out, arrived = [], []
        with _opener.open(self.url + "api/events" + query, timeout=10) as stream:
            for line in stream:
                if line.startswith(b"data: "):
                    arrived.append(time.monotonic())
                    out.append(json.loads(line[6:]))
                    if len(out) == count:
                        break
        return out, arrived

    def stop(self):
        """Sends SIGTERM; returns the exit status (None if it had to be killed)."""
        self.process.terminate()
        with self.process:  # closes the pipes and reaps the process on the way out
            try:
                return self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                return None


def wait_for(condition, seconds=5.0):
    """The first true value of condition() within `seconds`, else the last one."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.1)


class Api(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.server = Server(TOOLS, "--record-dir", cls.dir.name)
        status, config = cls.server.get("/api/configuration")
        assert status == 200 and isinstance(config["tagger"], dict), config
        cls.sources = config["emulator"]["devices"][0]["sources"]

    @classmethod
    def tearDownClass(cls):
        assert cls.server.stop() == 0, "SIGTERM must stop the server cleanly"
        cls.dir.cleanup()

    def ok(self, method, path, body=None):
        """The answer to a request that must succeed."""
        status, answer = self.server.request(method, path, body)
        self.assertEqual(status, 200, answer)
        return answer

    def test_rates_follow_the_emulated_sources(self):
        periodic = next(s for s in self.sources if s["type"] == "periodic")
        status, rates = wait_for(lambda: (lambda r: r if len(r[1]["times"]) >= 3 else None)(
            self.server.get("/api/rates")))
        self.assertEqual(status, 200)
        latest = dict(zip(rates["channels"], rates["rates"][-1]))
        self.assertAlmostEqual(latest[periodic["input"]], 1e12 / periodic["period_ps"],
                               delta=0.05 * latest[periodic["input"]])
        self.assertEqual(latest[18], 0)
        self.assertTrue(all(b > a for a, b in zip(rates["times"], rates["times"][1:])))

    def test_histogram_panels_show_the_pair_delay(self):
        pairs = next(s for s in self.sources if s["type"] == "pairs")
        a, b = pairs["inputs"]
        delay = pairs["delays_ps"][1] - pairs["delays_ps"][0]
        corr = self.ok("POST", "/api/panels",
                       {"channels": [a, b], "binwidth": 20, "range": "10ns"})
        startstop = self.ok("POST", "/api/panels", {"kind": "startstop", "channels": [a, b],
                                                    "binwidth": "20ps", "range": 4000})
        self.assertLessEqual({corr["id"], startstop["id"]},
                             {p["id"] for p in self.server.get("/api/panels")[1]})
        # Correlation bins (time on a) minus (time on b); start-stop the time from a to b.
        for panel, want in ((corr, -delay), (startstop, delay)):
            url = f"/api/panels/{panel['id']}"
            filled = wait_for(lambda: (lambda p: p if sum(p["counts"]) > 1000 else None)(
                self.server.get(url)[1]))
            best = max(range(len(filled["counts"])), key=filled["counts"].__getitem__)
            peak = filled["first_bin"] + best * filled["binwidth"] + filled["binwidth"] / 2
            self.assertAlmostEqual(peak, want, delta=40, msg=panel)
            self.ok("POST", url + "/clear", {})
            self.ok("DELETE", url)
            self.assertEqual(self.server.get(url)[0], 404)
        # The widest bins over the longest range: the bin count must not overflow on the way.
        wide = self.ok("POST", "/api/panels", {"channels": [a, b], "binwidth": 92233720368548,
                                               "range": 2**63 - 1})
        self.assertEqual(wide["bins"], 100000)

    def test_settings_round_trip_and_reach_the_stream(self):
        before = self.ok("GET", "/api/channels")
        low, high = before["trigger_range"]
        now = self.ok("POST", "/api/channels/5", {
            "trigger_level": (low + high) / 4, "input_delay": "1.5ns", "dead_time": 5000,
            "test_signal": True, "enabled": False})
        self.assertAlmostEqual(now["trigger_level"], (low + high) / 4, delta=0.01)
        self.assertGreaterEqual(now["dead_time"], 5000)
        self.assertEqual([now[k] for k in ("input_delay", "test_signal", "enabled")],
                         [1500, True, False])
        listed = {c["channel"]: c for c in self.server.get("/api/channels")[1]["channels"]}
        self.assertEqual(listed[5], now)
        self.assertNotIn(5, self.server.get("/api/rates")[1]["channels"])
        # Enabled again with its test signal on, the input now counts.
        self.server.post("/api/channels/5", {"enabled": True})
        counting = wait_for(lambda: (lambda r: r["rates"] and r["rates"][-1][
            r["channels"].index(5)] > 0)(self.server.get("/api/rates")[1]))
        self.assertTrue(counting)
        self.server.post("/api/channels/5", {"test_signal": False, "input_delay": 0,
                                             "trigger_level": before["channels"][4]["trigger_level"]})

    def test_health_and_update_stream(self):
        self.assertIn(["Serial", "ZTEMU00001"], self.server.get("/api/health")[1]["values"])
        events, arrived = self.server.events(6)
        # Five intervals at 5 pushes a second take 1 s; at 4 a second they would take 1.25 s.
        self.assertLess(arrived[-1] - arrived[0], 1.15)
        self.assertEqual(len(events), 6)
        self.assertLessEqual({"rates", "recording"}, set(events[-1]))

    def test_bad_input_names_the_field(self):
        cases = [
            ("POST", "/api/channels/1", b"{not json", "body"),
            ("POST", "/api/channels/1", b"[1]", "body"),
            ("POST", "/api/channels/x", b"{}", "channel"),
            ("POST", "/api/channels/99", b"{}", "channel"),
            ("POST", "/api/channels/1", b'{"triger_level": 1}', "triger_level"),
            ("POST", "/api/channels/1", b'{"trigger_level": "high"}', "trigger_level"),
            ("POST", "/api/channels/1", b'{"trigger_level": 1e9}', "trigger_level"),
            ("POST", "/api/channels/1", b'{"input_delay": "3 parsecs"}', "input_delay"),
            ("POST", "/api/channels/1", b'{"input_delay": 1e30}', "input_delay"),
            ("POST", "/api/channels/1", b'{"input_delay": 1000000000000000000}', "input_delay"),
            ("POST", "/api/channels/1", b'{"dead_time": -1}', "dead_time"),
            ("POST", "/api/channels/1", b'{"test_signal": "yes"}', "test_signal"),
            ("POST", "/api/channels/1", b'{"enabled": 1}', "enabled"),
            ("POST", "/api/panels", b'{"channels": [1]}', "channels"),
            ("POST", "/api/panels", b'{"channels": [1, 77]}', "channels"),
            ("POST", "/api/panels", b'{"channels": [1, 2], "kind": "fft"}', "kind"),
            ("POST", "/api/panels", b'{"channels": [1, 2], "binwidth": 0}', "binwidth"),
            ("POST", "/api/panels", b'{"channels": [1, 2], "range": "1s"}', "range"),
            ("GET", "/api/panels/abc", None, "id"),
            ("POST", "/api/recording", b'{"name": 5}', "name"),
        ]
        for method, path, raw, field in cases:
            with self.subTest(path=path, body=raw):
                status, body = self.server.request(method, path, raw=raw)
                self.assertEqual((status, body["field"]), (400, field), body)
                self.assertTrue(body["error"])
        # Refused settings change nothing, even the valid fields beside the bad one.
        before = self.server.get("/api/channels")[1]["channels"][0]
        self.server.request("POST", "/api/channels/1", raw=b'{"input_delay": 77, "dead_time": -1}')
        self.assertEqual(self.server.get("/api/channels")[1]["channels"][0], before)
        self.assertEqual(self.server.get("/api/nothing")[0], 404)

    def test_recording_stays_in_its_directory(self):
        for name in ["../escape", "sub/file", "..", ".hidden", "", "a\\b"]:
            with self.subTest(name=name):
                status, body = self.server.post("/api/recording", {"name": name})
                self.assertEqual((status, body["field"]), (400, "name"))
        self.assertEqual(os.listdir(self.dir.name), [])
        self.ok("POST", "/api/recording", {"name": "run1"})
        self.assertEqual(self.server.post("/api/recording", {"name": "run2"})[0], 409)
        time.sleep(0.5)
        done = self.ok("POST", "/api/recording/stop", {})
        self.assertGreater(done["events"], 0)
        self.assertEqual(self.server.post("/api/recording/stop")[0], 409)
        self.assertEqual(self.server.post("/api/recording", {"name": "run1.ztbin"})[0], 409)
        out = subprocess.run([f"{TOOLS}/zeptick", "inspect", f"{self.dir.name}/run1.ztbin"],
                             capture_output=True, text=True, check=True)
        counts = {int(c): int(n) for c, n in re.findall(r"channel\s+(\d+):\s+(\d+)", out.stdout)}
        self.assertEqual(sum(counts.values()), done["events"])
        # Every input that counts is recorded.
        rates = self.server.get("/api/rates")[1]
        counting = [c for c, rate in zip(rates["channels"], rates["rates"][-1]) if rate]
        self.assertEqual(sorted(counts), counting)

    def test_many_clients_while_settings_change(self):
        errors = []
        stop = time.monotonic() + 3

        def poll(path):
            while time.monotonic() < stop:
                status, body = self.server.get(path)
                if status not in (200, 404):
                    errors.append((path, status, body))

        def change():
            delay = 0
            while time.monotonic() < stop:
                delay = 100 - delay
                for status, body in (
                        self.server.post("/api/channels/2", {"input_delay": delay}),
                        self.server.post("/api/channels/4", {"enabled": delay == 0}),
                        self.server.post("/api/panels", {"channels": [1, 2]})):
                    if status != 200:
                        errors.append(("change", status, body))
                for panel in self.server.get("/api/panels")[1]:
                    self.server.request("DELETE", f"/api/panels/{panel['id']}")

        def listen():
            while time.monotonic() < stop:
                self.server.events(3)

        threads = [threading.Thread(target=poll, args=(p,)) for p in
                   ("/api/rates", "/api/channels", "/api/panels", "/api/panels/1", "/api/recording")]
        threads += [threading.Thread(target=change), threading.Thread(target=listen)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        self.assertEqual(errors, [])
        self.server.post("/api/channels/2", {"input_delay": 0})
        self.server.post("/api/channels/4", {"enabled": True})
        self.assertIsNone(self.server.process.poll())
        self.assertEqual(self.server.get("/api/health")[0], 200)


class Security(unittest.TestCase):
    def test_token_is_required_once_given(self):
        server = Server(TOOLS, "--token", "s3cret")
        try:
            bearer = {"Authorization": "Bearer s3cret"}
            for path, headers, status in [("/api/rates", {}, 401), ("/", {}, 401),
                                          ("/api/rates?token=wrong", {}, 401),
                                          ("/api/rates", {"Authorization": "Bearer s3cre"}, 401),
                                          ("/api/rates", bearer, 200), ("/?token=s3cret", {}, 200)]:
                self.assertEqual(server.get(path, headers=headers)[0], status, (path, headers))
            page = server.get("/?token=s3cret")[1]
            # The page's own files carry the token, or the browser could not load them.
            for asset in re.findall(r'(?:href|src)="([^"]+)"', page):
                self.assertEqual(server.get(asset)[0], 200, asset)
            self.assertTrue(server.events(1, token="s3cret")[0])
            self.assertEqual(server.post("/api/recording", {"name": "x"})[0], 401)
            # Without a recording directory, recording is off.
            status, body = server.post("/api/recording", {"name": "x"}, headers=bearer)
            self.assertEqual(status, 409)
            self.assertIn("--record-dir", body["error"])
        finally:
            self.assertEqual(server.stop(), 0)

    def test_refuses_to_start_unsafely(self):
        for args, message in [(["--bind", "0.0.0.0"], "--token"),
                              (["--record-dir", "/no/such/dir"], "--record-dir"),
                              (["--port", "70000"], "--port")]:
            with self.subTest(args=args):
                out = subprocess.run([f"{TOOLS}/zeptick", "--emulator", "default", "serve", *args],
                                     capture_output=True, text=True, timeout=20)
                self.assertEqual(out.returncode, 2, out.stderr)
                self.assertIn(message, out.stderr)


if __name__ == "__main__":
    unittest.main()
