"""The hub and a real broker: what is published, and what becomes of it when the broker is away, restarts or refuses."""

import json
import os
import pathlib
import socket
import subprocess
import time
import urllib.request

from hub_under_test import ACTIVITY, HEART_RATE, START, HubTest, Subscriber, main, reading, until


class PublishTest(HubTest):
    def test_readings_are_published_with_value_unit_time_age_and_validity(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna"], "heart_rate=1m\nactivity=yes\n")
        self.start(1)
        rates = until(lambda: subscriber.readings("parvane/anna/heart_rate"), "a heart rate")
        self.assertEqual((rates[0]["value"], rates[0]["unit"], rates[0]["valid"]), (70, "bpm", True))
        self.assertRegex(rates[0]["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertGreaterEqual(rates[0]["age"], 0)
        self.assertLess(rates[0]["age"], 60)
        worn = until(lambda: subscriber.readings("parvane/anna/worn"), "the worn state")
        self.assertIs(worn[0]["value"], True)
        self.watches.send("anna", reading(ACTIVITY, 2.0, START))
        until(lambda: [body for body in subscriber.readings("parvane/anna/activity") if body["value"] == "running"],
              lambda: f"running: {subscriber.readings('parvane/anna/activity')}")

        self.watches.send("anna", reading(HEART_RATE, 0.0))
        none = until(lambda: subscriber.readings("parvane/anna/heart_rate")[1:], "a heart rate that is none")
        self.assertEqual((none[0]["value"], none[0]["valid"]), (None, False))

    def test_steps_are_those_of_the_day_and_say_whether_they_are_exact(self):
        self.broker.start()
        subscriber = self.subscribe("parvane/anna/steps")
        self.configure(["anna"])
        self.start(1)
        until(lambda: subscriber.readings(), "what is known at first")
        self.watches.walk("anna", 10)
        self.watches.walk("anna", 5)
        got = until(lambda: [body for body in subscriber.readings() if body["value"] == 15], "15 steps")
        self.assertEqual((got[0]["exact"], got[0]["unit"]), (True, "steps"))
        self.assertRegex(got[0]["date"], r"^\d{4}-\d\d-\d\d$")

    def test_states_are_retained_and_measurements_are_not(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna"], "heart_rate=1m\n")
        self.start(1)
        until(lambda: subscriber.readings("parvane/anna/worn") and subscriber.readings("parvane/anna/heart_rate"),
              "both readings")
        late = Subscriber(self.broker.port, "parvane/#", "late")
        self.addCleanup(late.close)
        late.client.publish("parvane/end", "", 1)  # comes behind what is retained
        until(lambda: late.on("parvane/end"), "what is retained")
        topics = {message.topic: message.payload for message in late.messages}
        self.assertIn("parvane/anna/worn", topics)
        self.assertEqual((topics["parvane/anna/availability"], topics["parvane/availability"]), (b"online", b"online"))
        self.assertNotIn("parvane/anna/heart_rate", topics)

    def test_availability_follows_the_link_and_the_hub(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna"])
        self.start(1)
        text = lambda topic: [message.payload for message in subscriber.on(topic)]
        until(lambda: text("parvane/anna/availability")[-1:] == [b"online"], "the watch is online")
        self.watches.drop("anna")
        until(lambda: b"offline" in text("parvane/anna/availability"), "the watch is offline")
        until(lambda: text("parvane/anna/availability")[-1] == b"online", "the watch is online again")
        self.kill()
        until(lambda: text("parvane/availability")[-1] == b"offline", "the hub's last will")
        self.start(1)
        until(lambda: text("parvane/availability")[-1] == b"online", "the hub is online again")
        self.stop()
        until(lambda: text("parvane/availability")[-1] == b"offline", "the hub has taken its leave")

    def test_watches_are_asked_one_after_the_other(self):
        names = [f"w{i}" for i in range(5)]
        self.broker.start()
        self.configure(names, "heart_rate=30s\nsteps=no\n")
        begin = time.monotonic()
        self.start(5)
        asked = lambda: {name: at for at, name, _, sensor in reversed(self.watches.asked) if sensor == HEART_RATE}
        until(lambda: len(asked()) == 5, "all are asked")
        for index, name in enumerate(names):  # a busy machine has them asked later, never sooner
            self.assertGreaterEqual(asked()[name] - begin, 2 + index, asked())

    def test_metrics_and_status(self):
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna", "ben"])
        self.start(2)
        self.watches.send("anna", reading(HEART_RATE, 80.0))
        until(lambda: subscriber.readings("parvane/anna/heart_rate"), "a heart rate")
        until(lambda: self.status()["queue"]["messages"] == 0, "an empty queue")
        status = self.status()
        self.assertEqual((status["watches"], status["linked"], status["broker"]["connected"]), (2, 2, True))
        self.assertEqual([each["name"] for each in status["each"]], ["anna", "ben"])
        self.assertIn("2 of 2 linked", self.run_command("status").stdout)
        with urllib.request.urlopen(f"http://127.0.0.1:{status['metrics_port']}/metrics", timeout=60) as answer:
            self.assertIn("application/openmetrics-text", answer.headers["Content-Type"])
            text = answer.read().decode()
        self.assertTrue(text.endswith("# EOF\n"), text)
        self.assertIn('parvane_hub_readings_total{sensor="heart_rate"} 1\n', text)
        self.assertIn('parvane_hub_watch_linked{watch="ben"} 1\n', text)
        self.assertRegex(text, r'parvane_hub_reading_age_seconds\{watch="anna",sensor="heart_rate"\} \d')
        for request, code in ((b"GET / HTTP/1.0\r\n\r\n", b"404"), (b"POST /metrics HTTP/1.0\r\n\r\n", b"405")):
            with socket.create_connection(("127.0.0.1", status["metrics_port"]), 60) as client:
                client.sendall(request)
                self.assertIn(code, client.recv(4096))

    def test_sighup_adds_and_removes_without_touching_the_others(self):
        self.broker.start()
        subscriber = self.subscribe("#")
        self.configure(["anna", "ben"])
        self.start(2)
        anna = self.watches.hosts["anna"]
        until(lambda: subscriber.on("homeassistant/binary_sensor/parvane_ben/worn/config"), "ben's discovery")
        self.configure(["anna", "carl"])
        self.process.send_signal(1)
        until(lambda: {each["name"]: each["linked"] for each in self.status()["each"]} == {"anna": True, "carl": True},
              "anna and carl")
        self.assertIs(self.watches.hosts["anna"], anna)
        self.assertEqual(self.status()["each"][0]["losses"], 0)
        until(lambda: subscriber.on("homeassistant/sensor/parvane_ben/steps/config")[-1].payload == b"",
              "ben's entities are gone")
        good = pathlib.Path(self.file).read_text("utf-8")
        pathlib.Path(self.file).write_text("[queue]\nsize=none\n", "utf-8")
        self.process.send_signal(1)
        until(lambda: "everything stays as it is" in self.log_text(), "the refusal of what is no configuration")
        pathlib.Path(self.file).write_text(good, "utf-8")
        self.assertEqual(self.status()["linked"], 2)

    def test_a_watch_that_was_taken_out_while_no_hub_ran_is_withdrawn(self):
        self.broker.start()
        subscriber = self.subscribe("homeassistant/#")
        self.configure(["anna", "ben"])
        self.start(2)
        until(lambda: subscriber.on("homeassistant/sensor/parvane_ben/steps/config"), "ben's discovery")
        self.stop()
        self.configure(["anna"])
        self.start(1)
        until(lambda: subscriber.on("homeassistant/sensor/parvane_ben/steps/config")[-1].payload == b"",
              "ben's entities are gone")


class DiscoveryTest(HubTest):
    """Against the fields that Home Assistant documents for MQTT discovery."""

    COMMON = {"name", "unique_id", "object_id", "state_topic", "value_template", "json_attributes_topic", "icon", "qos",
              "availability", "availability_mode", "device", "origin", "device_class"}
    FIELDS = {"sensor": COMMON | {"unit_of_measurement", "state_class", "expire_after", "options"},
              "binary_sensor": COMMON | {"payload_on", "payload_off"}}
    STATE_CLASSES = {"measurement", "total", "total_increasing"}

    def test_messages_have_the_documented_fields(self):
        self.broker.start()
        subscriber = self.subscribe("homeassistant/#")
        self.configure(["anna"], "heart_rate=15m\nactivity=yes\n")
        self.start(1)
        until(lambda: len(subscriber.messages) >= 4, "four entities")
        ids = set()
        for message in subscriber.messages[:4]:
            _, component, node, entity, last = message.topic.split("/")
            body = json.loads(message.payload)
            self.assertEqual((node, last), ("parvane_anna", "config"))
            self.assertLessEqual(set(body), self.FIELDS[component])
            self.assertEqual(body["state_topic"], "parvane/anna/" + entity)
            self.assertEqual(body["device"]["identifiers"], ["parvane_anna"])
            self.assertEqual(body["availability"], [{"topic": "parvane/availability"},
                                                    {"topic": "parvane/anna/availability"}])
            self.assertIn(body.get("state_class", "measurement"), self.STATE_CLASSES)
            # Home Assistant takes options with the class "enum" alone, and such a sensor has no unit.
            self.assertEqual("options" in body, body.get("device_class") == "enum")
            self.assertFalse("options" in body and "unit_of_measurement" in body)
            self.assertIn("name", body["origin"])
            ids.add(body["unique_id"])
        self.assertEqual(len(ids), 4)
        self.assertEqual({message.topic.split("/")[3] for message in subscriber.messages[:4]},
                         {"heart_rate", "steps", "activity", "worn"})

    def test_they_come_again_when_the_reader_begins_anew(self):
        self.broker.start()
        subscriber = self.subscribe("homeassistant/#")
        self.configure(["anna"], "heart_rate=15m\n")
        self.start(1)
        until(lambda: self.status()["broker"]["connected"] and len(subscriber.messages) >= 3, "the entities")
        before = len(subscriber.messages)
        subscriber.client.publish("homeassistant/status", "online")
        until(lambda: len(subscriber.messages) >= before + 4, "the entities once more, behind the status")

    def test_none_are_sent_where_none_are_wanted(self):
        self.broker.start()
        subscriber = self.subscribe("#")
        self.configure(["anna"], "heart_rate=15m\n", "[topics]\ndiscovery=\nprefix=ward/3")
        self.start(1)
        until(lambda: subscriber.on("ward/3/anna/heart_rate"), "a heart rate below the prefix")
        self.assertEqual([message.topic for message in subscriber.messages if "homeassistant" in message.topic], [])


class AwayTest(HubTest):
    def send_rates(self, names, values):
        for value in values:
            for name in names:
                self.assertTrue(self.watches.send(name, reading(HEART_RATE, float(value))), name)

    def test_an_hour_of_readings_arrives_afterwards_in_order_none_twice(self):
        names = [f"w{i}" for i in range(4)]
        values = [40 + i for i in range(240)]  # one every 15 s
        self.configure(names, "heart_rate=no\nsteps=no\n")
        self.start(4)
        self.send_rates(names, values)
        until(lambda: self.status()["queue"]["messages"] >= 960, lambda: f"960 readings: {self.status()}")
        self.assertFalse(self.status()["broker"]["connected"])
        subscriber = self.begin_to_read()
        until(lambda: self.status()["queue"]["messages"] == 0 and len(subscriber.readings()) >= 960, "all have arrived")
        self.assert_in_order(subscriber, names, values)
        payloads = [message.payload for message in subscriber.messages if message.payload.startswith(b"{")]
        self.assertEqual(len(payloads), 960)

    def test_a_broker_that_restarts_again_and_again_gets_everything(self):
        names = ["anna", "ben"]
        self.broker.configuration = "listener PORT 127.0.0.1\nallow_anonymous true\nuser root\npersistence true\n" \
            f"persistence_location {self.folder}/\nautosave_interval 1\nautosave_on_changes true\n"
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(names, "heart_rate=no\nsteps=no\n")
        self.start(2)
        for turn in range(4):
            self.send_rates(names, range(40 + 40 * turn, 60 + 40 * turn))
            self.broker.stop()
            self.send_rates(names, range(60 + 40 * turn, 80 + 40 * turn))
            self.broker.start()
        until(lambda: self.status()["queue"]["messages"] == 0 and len(subscriber.readings()) >= 320,
              lambda: f"320 readings: {len(subscriber.readings())}, {self.status()}")
        self.assert_in_order(subscriber, names, list(range(40, 200)))

    def test_a_queue_that_is_full_drops_the_oldest_and_counts(self):
        self.configure(["anna"], "heart_rate=no\nsteps=no\n", "[queue]\nsize=64K")
        self.start(1)
        values = [1 + i for i in range(1000)]
        self.send_rates(["anna"], values)
        until(lambda: self.status()["each"][0]["readings"] == 1000, "all are taken")
        queue = self.status()["queue"]
        self.assertLessEqual(queue["bytes"], 65536)
        self.assertEqual(queue["messages"] + queue["dropped_for_size"], 1000)
        self.assertGreater(queue["messages"], 100)
        subscriber = self.begin_to_read()
        until(lambda: self.status()["queue"]["messages"] == 0, "an empty queue")
        until(lambda: len(subscriber.readings()) == queue["messages"], "what is left has arrived")
        self.assert_in_order(subscriber, ["anna"], values[-queue["messages"]:])
        self.kill()
        self.start(1)
        self.assertEqual(self.status()["queue"]["dropped_for_size"], queue["dropped_for_size"])

    def test_a_broker_that_is_slow_gets_everything_in_order(self):
        """It is stopped for a while with the connection open, and everything lies in the queue meanwhile."""
        self.broker.start()
        subscriber = self.subscribe()
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.start(1)
        self.broker.process.send_signal(19)  # SIGSTOP
        self.send_rates(["anna"], range(1, 501))
        until(lambda: self.status()["each"][0]["readings"] == 500, "the hub takes them")
        self.assertGreaterEqual(self.status()["queue"]["messages"], 500)
        self.broker.process.send_signal(18)  # SIGCONT
        until(lambda: self.status()["queue"]["messages"] == 0 and len(subscriber.readings()) == 500, "all have arrived")
        self.assert_in_order(subscriber, ["anna"], list(range(1, 501)))

    def test_a_kill_loses_nothing_that_was_taken(self):
        """Tens of times, under load; script/kill --hub does it a thousand times."""
        count_kills(self, int(os.environ.get("PARVANE_KILLS", "20")))


def count_kills(test, kills):
    """Kills the hub at any moment, with readings on their way, and looks at what had been written down."""
    names = [f"w{i}" for i in range(4)]
    test.broker.start()
    subscriber = test.subscribe()
    test.configure(names, "heart_rate=no\nsteps=no\n")
    value = 0
    stored = []
    for kill in range(1, kills + 1):
        test.start(4)
        before = len(subscriber.messages)
        for _ in range(30):
            value += 1
            for name in names:
                test.watches.send(name, reading(HEART_RATE, float(value)))
        until(lambda: len(subscriber.messages) > before + value % 90, "readings flow")
        test.kill()
        stored += test.stored()
        if kill % 100 == 0:
            print(f"{kill} kills, {len(subscriber.messages)} messages", flush=True)
    test.start(4)
    until(lambda: test.status()["queue"]["messages"] == 0, "an empty queue")
    arrived = lambda: {body["id"] for body in subscriber.readings()}
    until(lambda: set(stored) <= arrived(), lambda: f"lost: {sorted(set(stored) - arrived())[:9]}")
    # Numbers of a run without a gap: what left the queue had arrived, whether it was seen in the file or not.
    runs = {}
    for body in subscriber.readings():
        run, number = body["id"].split("-")
        runs.setdefault(run, []).append(int(number))
    for run, numbers in runs.items():
        test.assertEqual(numbers, list(range(1, len(numbers) + 1)), f"of the run {run}")
    # The same reading under two identities would be a value that a watch never sent twice.
    for name in names:
        values = [body["value"] for body in subscriber.readings(f"parvane/{name}/heart_rate")]
        test.assertEqual(values, sorted(set(values)), f"of {name}")


class SecureTest(HubTest):
    """TLS with certificates of the test's own, a user with a password, and version 5 of MQTT."""

    def setUp(self):
        super().setUp()
        self.make_certificates()
        password = os.path.join(self.folder, "password")
        pathlib.Path(password).write_text("sesame\n", "utf-8")
        subprocess.run(["mosquitto_passwd", "-b", "-c", f"{self.folder}/users", "ward", "sesame"], check=True)
        os.chmod(f"{self.folder}/users", 0o644)
        os.chmod(self.folder, 0o755)
        self.broker.configuration = (f"listener PORT 127.0.0.1\nallow_anonymous false\npassword_file {self.folder}/users\n"
                                     f"cafile {self.folder}/ca.pem\ncertfile {self.folder}/broker.pem\n"
                                     f"keyfile {self.folder}/broker.key\nuser root\n")
        self.keys = (f"tls=yes\nauthorities={self.folder}/ca.pem\nuser=ward\npassword_file={password}\nhost=127.0.0.1\n")

    def make_certificates(self):
        def openssl(*arguments):
            subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=self.folder)

        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                "-subj", "/CN=ward authority", "-keyout", "ca.key", "-out", "ca.pem")
        for name in ("broker", "hub"):
            openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=" + name,
                    "-keyout", name + ".key", "-out", name + ".csr")
            pathlib.Path(self.folder, "names").write_text("subjectAltName=IP:127.0.0.1,DNS:localhost\n", "utf-8")
            openssl("x509", "-req", "-in", name + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                    "-days", "2", "-extfile", "names", "-out", name + ".pem")

    def send_and_wait(self):
        for value in range(1, 201):
            self.watches.send("anna", reading(HEART_RATE, float(value)))
        until(lambda: self.status()["delivered"] >= 200, lambda: f"200 are delivered: {self.status()}")
        self.assertEqual(self.status()["queue"]["messages"], 0)

    def test_tls_with_a_password(self):
        self.broker.start()
        for protocol in ("3.1.1", "5"):
            self.broker_keys = self.keys + f"protocol={protocol}\n"
            self.configure(["anna"], "heart_rate=no\nsteps=no\n")
            self.start(1)
            self.send_and_wait()
            self.stop()

    def test_tls_with_a_client_certificate(self):
        self.broker.configuration += "require_certificate true\nuse_identity_as_username true\n"
        self.broker.start()
        self.broker_keys = (f"tls=yes\nauthorities={self.folder}/ca.pem\ncertificate={self.folder}/hub.pem\n"
                            f"key={self.folder}/hub.key\n")
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.start(1)
        self.send_and_wait()

    def test_a_broker_that_another_authority_has_signed_is_refused(self):
        self.broker.start()
        os.rename(f"{self.folder}/ca.pem", f"{self.folder}/old.pem")
        self.make_certificates()
        self.broker_keys = self.keys
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.start(1)
        until(lambda: self.status()["broker"]["problem"], "the refusal")
        self.assertFalse(self.status()["broker"]["connected"])

    def test_a_broker_that_is_away_or_hangs_up_is_noticed_at_once(self):
        """The library itself goes on with such a handshake for ever."""
        self.broker_keys = self.keys
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.start(1)
        until(lambda: self.status()["broker"]["problem"], "the refusal")
        with socket.create_server(("127.0.0.1", self.broker.port)) as server:
            server.settimeout(120)
            for _ in range(2):  # the second is another attempt
                client, _ = server.accept()
                client.close()
        self.assertNotIn("no answer within", self.log_text())

    def test_a_wrong_password_is_told_once_and_readings_are_kept(self):
        self.broker.start()
        pathlib.Path(self.folder, "password").write_text("mallow\n", "utf-8")
        self.broker_keys = self.keys
        self.configure(["anna"], "heart_rate=no\nsteps=no\n")
        self.start(1)
        self.watches.send("anna", reading(HEART_RATE, 71.0))
        where = f"no connection to the broker: 127.0.0.1:{self.broker.port}: "
        until(lambda: where in self.log_text(), "the refusal")
        until(lambda: self.status()["queue"]["messages"] == 1, "the reading is kept")
        problem = self.status()["broker"]["problem"].lower()
        self.assertIn("not authorised", problem)
        time.sleep(2)  # more attempts
        self.assertEqual(self.log_text().count("no connection to the broker"), 1)
        pathlib.Path(self.folder, "password").write_text("sesame\n", "utf-8")
        until(lambda: self.status()["delivered"] == 1, "the reading is delivered with the right one")
        self.assertNotIn("mallow", self.log_text())


if __name__ == "__main__":
    main()
