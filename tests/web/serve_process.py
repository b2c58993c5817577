"""Starts `zeptick serve` on a free port and talks JSON to it, for the API and
browser tests."""
import json
import re
import subprocess
import time
import urllib.error
import urllib.request

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

    def events(self, count, token=None, timed=False):
        """The first `count` server-sent events, parsed; with `timed` also the
        monotonic time each arrived."""
        query = f"?token={token}" if token else ""
        out, arrived = [], []
        with _opener.open(self.url + "api/events" + query, timeout=10) as stream:
            for line in stream:
                if line.startswith(b"data: "):
                    arrived.append(time.monotonic())
                    out.append(json.loads(line[6:]))
                    if len(out) == count:
                        break
        return (out, arrived) if timed else out

    def stop(self):
        """Sends SIGTERM; returns the exit status (None if it had to be killed)."""
        self.process.terminate()
        try:
            return self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None
        finally:
            self.process.stdout.close()
            self.process.stderr.close()


def peak_position(panel):
    """Centre in ps of the fullest bin of a panel read from the API."""
    counts = panel["counts"]
    best = max(range(len(counts)), key=counts.__getitem__)
    return panel["first_bin"] + best * panel["binwidth"] + panel["binwidth"] / 2
