# SPDX-License-Identifier: Apache-2.0
"""The demo on the gateway box: the reference application loses the cloud on Ethernet, fails over to Cellular, returns,
and reports a failure, on the real connection manager and the real broker. Draws the run as a picture at the end.

Run by script/demo. The box, and with it everything that was started, is taken down however the demo ends.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

from orv_testbed import route_states, timeline
from orv_testbed.demo.transcript import Transcript
from orv_testbed.processes import end_all

STATES = [
    "ETHERNET_ACTIVE",
    "ETHERNET_LOST_DELAY",
    "POKING_CELLULAR",
    "SWITCHING_TO_CELLULAR",
    "CELLULAR_ACTIVE",
    "SWITCHING_TO_ETHERNET",
    "ETHERNET_SETTLE_DELAY",
    "ETHERNET_ACTIVE",
]
STATUS_FILE = "/var/tmp/new_enterprise_statuses.csv"
ERRORS = "/var/tmp/new_enterprise_errors.csv"
STATUSES = '"Enterprise Feature","Enabled"\n"Cloud Connection","Up"\n"Ethernet","Up"\n"Cellular","Up"'
LOG_LEVEL = "info,OrvRoute=debug,OrvSessionMqtt=error"
LED_TOPIC = "/orv/led/connected_services_"
COLUMN = {
    "route state": "state",
    "green LED": "LED",
    "yellow LED": "LED",
    "DNS topic": "wire",
    "default route": "route",
    "cloud connection": "cloud",
}
DNS_TOPIC = "/orv/network/wan/inhibit_dns"


class DemoError(Exception):
    pass


class Run:
    """What was seen, in order, by lane; and whoever waits for something to be seen."""

    def __init__(self, transcript):
        self.transcript = transcript
        self.begin = time.monotonic()
        self.events = []
        self.lanes = {}
        self.changed = threading.Condition()

    def note(self, lane, value, text=None, *styles):
        with self.changed:
            history = self.lanes.setdefault(lane, [])
            if history and history[-1] == value:
                return
            history.append(value)
            self.events.append({"t": time.monotonic() - self.begin, "lane": lane, "value": value})
            self.changed.notify_all()
        self.transcript.line(COLUMN.get(lane, lane)[:8], text or value, *styles)

    def mark(self, text):
        with self.changed:
            self.events.append({"t": time.monotonic() - self.begin, "mark": text})
        self.transcript.chapter(text)

    def show(self, seconds):
        """Time for the reader, and for something that must not happen."""
        time.sleep(seconds)

    def now(self, lane):
        return self.lanes.get(lane, [""])[-1]

    def wait(self, what, seconds, condition):
        with self.changed:
            end = time.monotonic() + seconds
            while not condition():
                if time.monotonic() > end:
                    raise DemoError(f"{what}: not within {seconds} s")
                self.changed.wait(0.1)


class BoxDemo:
    def __init__(self, tree, programs, transcript):
        self.box_command = os.path.join(tree, "testbed", "box")
        self.app = os.path.join(programs, "gateway-app")
        self.run = Run(transcript)
        self.transcript = transcript
        self.processes = []
        self.name = f"d{os.getpid() % 10**7}"  # as many characters as a box may have
        self.state = os.path.join(os.environ.get("TMPDIR", "/tmp"), f"orv-box-{self.name}")
        self.environment = {
            **os.environ,
            "ORV_BOX": self.name,
            "ORV_BOX_DIR": self.state,
            "ORV_SOURCE_ROUTES": os.path.join(programs, "orv-source-routes"),
        }

    def box(self, *arguments, check=True):
        done = subprocess.run(
            [self.box_command, *arguments],
            env=self.environment,
            capture_output=True,
            text=True,
            check=False,
            stdin=subprocess.DEVNULL,
        )
        if check and done.returncode != 0:
            raise DemoError(f"box {' '.join(arguments)}: {done.stderr.strip() or done.stdout.strip()}")
        return done.stdout

    def on_gateway(self, *command, **options):
        process = subprocess.Popen(
            [self.box_command, "exec", *command],
            env=self.environment,
            stdin=subprocess.DEVNULL,
            text=True,
            errors="replace",
            **options,
        )
        self.processes.append(process)
        return process

    def follow(self, stream, take):
        def read():
            for line in stream:
                take(line.rstrip("\n"))

        thread = threading.Thread(target=read, daemon=True)
        thread.start()
        return thread

    def up(self):
        self.box("up")
        self.run.begin = time.monotonic()
        wire = self.on_gateway(
            "stdbuf",
            "-oL",
            "mosquitto_sub",
            "-h",
            "127.0.0.1",
            "-V",
            "mqttv5",
            "--retain-as-published",
            "-t",
            "/orv/#",
            "-F",
            "%r %t %p",
            stdout=subprocess.PIPE,
        )
        self.follow(wire.stdout, self.on_message)
        routes = self.on_gateway("stdbuf", "-oL", "ip", "-o", "monitor", "route", stdout=subprocess.PIPE)
        self.follow(routes.stdout, lambda _: self.on_route())
        self.on_route()

    def start_application(self):
        transcript = os.path.join(self.state, "app.jsonl")
        open(transcript, "w", encoding="utf-8").close()
        application = self.on_gateway(
            "env",
            f"ORV_LOG_LEVEL={LOG_LEVEL}",
            "RES_OPTIONS=timeout:1 attempts:2",
            self.app,
            "--name",
            "demo",
            "--cloud-host",
            "cloud.box.test",
            "--tick-ms",
            "100",
            "--transcript",
            transcript,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.log_reader = self.follow(application.stderr, self.on_log)
        happenings = subprocess.Popen(
            ["tail", "-F", "-n", "+1", transcript], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        )
        self.processes.append(happenings)
        self.follow(happenings.stdout, self.on_happening)
        return application

    def on_message(self, line):
        retained, topic, payload = (line.split(" ", 2) + [""])[:3]
        if topic.startswith(LED_TOPIC):
            led = topic[len(LED_TOPIC) :]
            self.run.note(f"{led} LED", payload, self.transcript.lamp(led, payload))
        elif topic == DNS_TOPIC:
            self.run.note("DNS topic", payload, f"inhibit_dns: {payload}", "dim")
        if topic.startswith((LED_TOPIC, DNS_TOPIC)) and retained != "1":
            self.run.note("fault", f"{topic} was not published retained", None, "red")

    def on_route(self):
        found = re.search(r"\bdev (\S+)", self.box("exec", "ip", "route", "show", "default", check=False))
        interface = found.group(1) if found else "none"
        self.run.note("default route", interface, f"default over {interface}")

    def on_log(self, line):
        self.transcript.line("log", line[25:] if line[:2] == "20" else line, "dim")
        state = route_states.entered(line)
        if state:
            self.run.note("route state", state, state, "bold")

    def on_happening(self, line):
        happening = json.loads(line)
        what = happening["what"]
        if what == "cloud_connected":
            self.run.note(
                "cloud connection",
                "Ethernet" if happening["interface"] == "eth0" else "Cellular",
                f"connected from {happening['source']} ({happening['interface']})",
                "green",
            )
        elif what == "cloud_lost":
            self.run.note("cloud connection", "none", f"lost: {happening.get('reason', '')}", "red")
        elif what == "event":
            self.transcript.line("event", happening["event"], "cyan")

    def play(self):
        run = self.run
        self.transcript.chapter("A gateway comes up: two providers, a cloud, ConnMan, a broker")
        self.up()
        application = self.start_application()
        run.note("route state", "ETHERNET_ACTIVE", "ETHERNET_ACTIVE", "bold")
        run.wait(
            "the cloud connection over Ethernet",
            20,
            lambda: run.now("cloud connection") == "Ethernet" and run.now("green LED") == "On",
        )

        run.show(2)
        run.mark("Ethernet provider dies")
        self.box("provider", "eth", "dead")
        run.wait(
            "the fail-over to Cellular",
            40,
            lambda: run.now("cloud connection") == "Cellular"
            and run.now("route state") == "CELLULAR_ACTIVE"
            and run.now("green LED") == "On",
        )

        run.show(4)
        run.mark("Ethernet provider is back")
        self.box("provider", "eth", "back")
        run.wait(
            "the return to Ethernet",
            60,
            lambda: run.now("cloud connection") == "Ethernet"
            and run.now("route state") == "ETHERNET_ACTIVE"
            and run.now("default route") == "eth0",
        )

        run.show(2)
        run.mark("the application reports a failure")
        application.send_signal(signal.SIGUSR1)  # `box exec` has replaced itself by the program
        run.wait("both LEDs blinking", 10, lambda: run.now("green LED") == run.now("yellow LED") == "Blink")

        errors = self.on_gateway_disk(ERRORS)
        run.wait("the error file", 5, lambda: os.path.exists(errors) and os.path.getsize(errors) > 0)
        faults = self.show_files()

        run.show(1)
        run.mark("the application is told to end")
        application.send_signal(signal.SIGTERM)
        status = application.wait(10)
        self.log_reader.join(2)
        run.events.append({"t": time.monotonic() - run.begin, "end": True})
        return faults + self.judge(status)

    def judge(self, status):
        faults = [] if status == 0 else [f"the application ended with exit status {status}"]
        faults += self.run.lanes.get("fault", [])

        def expect(lane, wanted):
            seen = [
                value for value in self.run.lanes.get(lane, []) if value != "none"
            ]  # gaps between two are all right
            if seen != wanted:
                faults.append(f"{lane}: {seen}, but it must be {wanted}")

        expect("route state", STATES)
        expect("default route", ["eth0", "wwan0", "eth0"])
        expect("DNS topic", ["inhibit", "permit"])
        expect("cloud connection", ["Ethernet", "Cellular", "Ethernet"])
        return faults

    def on_gateway_disk(self, path):
        return os.path.join(self.state, "gateway", path.lstrip("/"))

    def show_files(self):
        faults = []
        for path, right in (
            (STATUS_FILE, lambda text: text == STATUSES),
            (ERRORS, lambda text: re.fullmatch(r"\d+,Fatal Error Detected", text)),
        ):
            self.transcript.chapter(path)
            try:
                with open(self.on_gateway_disk(path), encoding="utf-8") as file:
                    text = file.read()
            except OSError as error:
                faults.append(f"{path}: {error.strerror}")
                continue
            print(text, flush=True)
            if not right(text):
                faults.append(f"{path} is not as it must be")
        return faults

    def draw(self, folder):
        os.makedirs(folder, exist_ok=True)
        events = os.path.join(folder, "demo.jsonl")
        picture = os.path.join(folder, "demo.svg")
        with open(events, "w", encoding="utf-8") as file:
            file.writelines(json.dumps(event) + "\n" for event in self.run.events if event.get("lane") != "fault")
        timeline.main([events, picture])
        print(f"\nThe run as a picture: {picture}")
        if shutil.which("rsvg-convert"):
            subprocess.run(["rsvg-convert", picture, "-o", picture[:-3] + "png"], check=True)
            print(f"                      {picture[:-3]}png")

    def stop(self):
        end_all(self.processes)
        self.box("down", check=False)
        shutil.rmtree(self.state, ignore_errors=True)


def interrupted(*_):
    raise KeyboardInterrupt


def main(arguments):
    tree, programs, folder, colour = arguments
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    transcript = Transcript(colour == "colour")
    demo = BoxDemo(tree, programs, transcript)
    try:
        faults = demo.play()
        demo.draw(folder)
    except KeyboardInterrupt:
        print("\ndemo: interrupted", file=sys.stderr)
        return 130
    except (DemoError, OSError, subprocess.SubprocessError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        demo.stop()
    if faults:
        transcript.chapter(transcript.paint("Not what must be there:", "red"))
        print("\n".join(faults))
        return 1
    transcript.chapter(transcript.paint("Fail-over, return and failure went as they must.", "green"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
