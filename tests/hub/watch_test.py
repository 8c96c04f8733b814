"""The hub and its watches: what one does wrong is not another's trouble, and what disk and clocks do wrong is not theirs."""

import json
import os
import pathlib
import subprocess

from hub_under_test import HEART_RATE, HubTest, PATIENCE_S, PROGRAM, main, reading, until


class LyingTest(HubTest):
    def test_packets_that_are_none_hurt_no_other_watch(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna", "mallory"], "heart_rate=no\nsteps=no\n")
        self.start(2)
        whole = reading(HEART_RATE, 60.0)
        lies = [b"", b"\xff", whole[:-1], whole + b"\0", os.urandom(64), os.urandom(65000),
                reading(HEART_RATE, float("nan")), reading(HEART_RATE, float("inf")), reading(9, 1.0)]
        for value in range(1, 101):
            self.watches.send("mallory", lies[value % len(lies)])
            self.assertTrue(self.watches.send("anna", reading(HEART_RATE, float(value))))
        until(lambda: len(subscriber.readings("parvane/anna/heart_rate")) == 100, "anna's readings")
        self.assert_in_order(subscriber, ["anna"], list(range(1, 101)))
        anna, mallory = self.status()["each"]
        self.assertEqual((anna["losses"], anna["nonsense"]), (0, 0))
        self.assertGreater(mallory["nonsense"], 50)
        self.assertLess(self.log_text().count("a packet that is none"), 5)

    def test_a_watch_that_sends_without_end_rests(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna", "mallory"], "heart_rate=no\nsteps=no\n")
        self.start(2)
        sent = 0
        while self.watches.send("mallory", reading(HEART_RATE, 61.0)):
            sent += 1
            self.assertLess(sent, 100000, "mallory is still listened to")
        self.assertTrue(self.watches.send("anna", reading(HEART_RATE, 62.0)))
        until(lambda: subscriber.readings("parvane/anna/heart_rate"), "anna's reading")
        anna, mallory = self.status()["each"]
        self.assertEqual((anna["linked"], anna["losses"], mallory["linked"], mallory["rests"]), (True, 0, False, 1))
        self.assertIn("rests for a minute", mallory["problem"])

    def test_a_watch_that_is_away_comes_back(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna"], "heart_rate=no\n")
        self.start(1)
        for value in (1, 2, 3):
            self.watches.drop("anna")
            until(lambda v=value: self.status()["each"][0]["losses"] == v and self.status()["linked"] == 1, "a new link")
            self.watches.send("anna", reading(HEART_RATE, float(value)))
        until(lambda: len(subscriber.readings("parvane/anna/heart_rate")) == 3, "all readings")


class WebTest(HubTest):
    """A watch behind a real gateway, over TLS with a fingerprint, and without TLS."""

    def start_gateway(self):
        for name in ("watch", "gateway"):
            os.makedirs(os.path.join(self.folder, name), 0o700, exist_ok=True)
        file = os.path.join(self.folder, "gateway.conf")
        pathlib.Path(file).write_text(f"[watch]\ndirectory={self.folder}/watch\n[web]\nport=0\n[bluetooth]\nenabled=no\n"
                                      f"[directories]\nstate={self.folder}/gateway\nruntime={self.folder}/gateway\n", "utf-8")
        command = [os.environ["PARVANE_GATEWAY_PROGRAM"], "--config", file]
        gateway = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        self.addCleanup(gateway.wait, 60)
        self.addCleanup(gateway.terminate)
        ask = lambda *words: subprocess.run([*command, *words, "--json"], capture_output=True, check=False)
        status = json.loads(until(lambda: ask("status").stdout, "the gateway"))["roads"]["web"]
        token = json.loads(ask("token", "add", "hub").stdout)["token"]
        pathlib.Path(self.folder, "token").write_text(token + "\n", "utf-8")
        return status["port"], status["fingerprint"]

    def test_readings_come_over_tls_and_plain_and_wrong_tokens_and_fingerprints_do_not(self):
        self.broker.start()
        subscriber = self.subscribe()
        port, fingerprint = self.start_gateway()
        self.watches.add("watch/link")
        key = f"token_file={self.folder}/token\n"
        value = 60
        for link in (f"link=wss://127.0.0.1:{port}\nfingerprint={fingerprint}\n", f"link=ws://127.0.0.1:{port}\n"):
            self.configure([], "heart_rate=no\nsteps=no\n")
            with open(self.file, "a", encoding="utf-8") as file:
                file.write("[watch anna]\n" + link + key)
            self.start(1)
            value += 1
            self.assertTrue(self.watches.send("watch/link", reading(HEART_RATE, float(value))))
            until(lambda: [body for body in subscriber.readings() if body["value"] == value], "the reading")
            self.stop()
        pathlib.Path(self.folder, "other").write_text("0" * 43 + "\n", "utf-8")
        for more in (f"link=ws://127.0.0.1:{port}\ntoken_file={self.folder}/other\n",
                     f"link=ws://127.0.0.1:{port}\ntoken_file={self.folder}/none\n",
                     f"link=wss://127.0.0.1:{port}\nfingerprint={'0' * 64}\n{key}"):
            self.configure([], "heart_rate=no\nsteps=no\n")
            with open(self.file, "a", encoding="utf-8") as file:
                file.write("[watch anna]\n" + more)
            self.start()
            until(lambda: self.status()["each"][0]["problem"], "the refusal")
            self.assertEqual(self.status()["linked"], 0)
            self.stop()


class DiskTest(HubTest):
    def test_a_disk_that_is_full_costs_nothing_once_there_is_room(self):
        """The limit of the size of files stands for the disk's end: SQLite is told the same."""
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.prefix = ["prlimit", "--fsize=262144:unlimited"]
        self.start(1)
        values = list(range(1, 1501))
        for value in values:
            self.watches.send("anna", reading(HEART_RATE, float(value)))
        until(lambda: self.status()["each"][0]["readings"] == 1500, "all are taken")
        until(lambda: self.status()["queue"]["problem"], lambda: f"the disk is full: {self.status()}")
        self.assertIn("readings cannot be kept", self.log_text())
        subprocess.run(["prlimit", f"--pid={self.process.pid}", "--fsize=unlimited:unlimited"], check=True)
        until(lambda: not self.status()["queue"]["problem"], "there is room again")
        self.assertIn("readings are kept again", self.log_text())
        subscriber = self.begin_to_read()
        until(lambda: len(subscriber.readings()) == 1500, lambda: f"all arrive: {len(subscriber.readings())}")
        self.assert_in_order(subscriber, ["anna"], values)

    def test_a_queue_that_is_damaged_is_moved_aside(self):
        self.configure(["anna"], "heart_rate=no\n")
        pathlib.Path(self.folder, "state", "queue.db").write_bytes(os.urandom(65536))
        self.start(1)
        self.assertTrue(os.path.exists(f"{self.folder}/state/queue.db.damaged"))
        self.assertIn("a new one begins", self.log_text())

    def test_what_is_known_of_the_steps_outlives_the_hub(self):
        self.broker.start()
        subscriber = self.subscribe("parvane/anna/steps")
        self.configure(["anna"])
        self.start(1)
        until(lambda: subscriber.readings(), "what is known at first")
        self.watches.walk("anna", 20)
        until(lambda: [body for body in subscriber.readings() if body["value"] == 20], "20 steps")
        self.stop()
        known = len(subscriber.readings())
        self.start(1)
        until(lambda: len(subscriber.readings()) > known, "what is known by then")
        self.watches.walk("anna", 5)
        until(lambda: [body for body in subscriber.readings() if body["value"] == 25], "25 steps, five of them new")


class ClockTest(HubTest):
    """The system's clock jumps; the steady one does not."""

    def jump(self, days):
        file = os.path.join(self.folder, "clock")
        pathlib.Path(file + ".new").write_text(f"{days * 86400}\n", "utf-8")
        os.rename(file + ".new", file)

    def test_jumps_drop_nothing_and_ages_are_never_below_zero(self):
        self.jump(0)
        self.prefix = ["env", "LD_PRELOAD=" + os.environ["PARVANE_JUMPING_CLOCK"], f"JUMPING_CLOCK={self.folder}/clock"]
        self.configure(["anna"], "heart_rate=no\nsteps=no\n", "[queue]\nage=1h")
        self.start(1)
        value = 0
        for days in (0, 3650, -3650, 1, 0):
            self.jump(days)
            value += 1
            self.watches.send("anna", reading(HEART_RATE, float(value)))
            until(lambda: self.status()["each"][0]["readings"] == value, "the reading is taken")
        self.assertEqual(self.status()["queue"]["dropped_for_age"], 0)
        subscriber = self.begin_to_read()
        until(lambda: len(subscriber.readings()) == value, "all arrive")
        self.assert_in_order(subscriber, ["anna"], list(range(1, value + 1)))
        times = [body["time"][:4] for body in subscriber.readings()]
        self.assertEqual(len(set(times)), 3, times)  # the clock did jump
        for body in subscriber.readings():
            self.assertGreaterEqual(body["age"], 0)


class CommandTest(HubTest):
    def test_check_config_names_what_is_wrong(self):
        file = os.path.join(self.folder, "other.conf")
        pathlib.Path(file).write_text("[broker]\nport=x\n[watch a b]\nlink=unix:/x\n[ward]\n[watch c]\n", "utf-8")
        done = self.run_command("check-config", file)
        self.assertEqual(done.returncode, 1)
        self.assertIn("line 2: [broker] port is 'x'", done.stdout)
        self.assertIn("line 3: [watch a b]: a watch's name", done.stdout)
        self.assertIn("line 5: unknown section [ward]", done.stdout)
        self.configure(["anna"])
        self.assertEqual(self.run_command("check-config").stdout, "the hub starts with it\n")
        done = self.run_command("check-config", "/nonexistent")
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertIn("cannot read the configuration file /nonexistent", done.stderr)

    def test_without_a_hub_the_status_is_three(self):
        self.configure([])
        done = self.run_command("status")
        self.assertEqual((done.returncode, done.stdout), (3, ""))
        self.assertIn("no hub answers", done.stderr)
        self.assertIn("is the hub running?", done.stderr)
        self.assertEqual(self.run_command("stats").returncode, 2)

    def test_an_output_that_cannot_be_written_is_a_failure(self):
        self.configure(["anna"])
        for arguments in (["--help"], ["--version"], ["check-config", self.file]):
            with open("/dev/full", "w", encoding="utf-8") as full:
                done = subprocess.run([PROGRAM, *arguments], stdout=full, stderr=subprocess.PIPE, text=True,
                                      timeout=PATIENCE_S)
            self.assertEqual(done.returncode, 1, arguments)
            self.assertIn("cannot write to standard output: No space left", done.stderr)


if __name__ == "__main__":
    main()
