"""parvane-host through the gateway: what it says of what goes wrong, and links that come and go.

Usage: host_test.py PARVANE-GATEWAY PARVANE-HOST [TEST...]
"""

import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

HOST = sys.argv.pop(2)

from gateway_under_test import PATIENCE_S, GatewayTest, Watch, until


class Run:
    """One parvane-host, whose output is read as it comes."""

    def __init__(self, test, arguments, **variables):
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen([HOST, *arguments], stdout=subprocess.PIPE, stderr=self.errors,
                                        env={**os.environ, "XDG_STATE_HOME": test.folder, **variables})
        test.addCleanup(self.close)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(PATIENCE_S)
        self.process.stdout.close()
        self.errors.close()

    def said(self):
        self.errors.seek(0)
        return self.errors.read().decode()

    def end(self):
        """@return its exit status, its output, what it complained about"""
        output = self.process.communicate(timeout=PATIENCE_S)[0].decode()
        return self.process.returncode, output, self.said()


class HostTest(GatewayTest):
    def setUp(self):
        super().setUp()
        self.secret = self.token()
        self.plain = f"ws://127.0.0.1:{self.port}"
        self.tls = f"wss://127.0.0.1:{self.port}"
        self.fingerprint = self.status()["roads"]["web"]["fingerprint"]

    def run_host(self, *arguments, link=None, **variables):
        variables = {"PARVANE_TOKEN": self.secret, "PARVANE_FINGERPRINT": self.fingerprint, **variables}
        return Run(self, ["--link", link or self.tls, "--timeout", "60", *arguments], **variables)


    # Goes on until it is killed.
    ECHOED = ("raw", "--quiet-for", "60000", "01000000")

    def expect_echo(self, run):
        line = run.process.stdout.readline().decode()
        self.assertIn("01 00 00 00", line, run.said())


class RefusalTest(HostTest):
    """What a user is told, and whether another attempt is made."""

    def expect(self, run, status, text):
        code, output, said = run.end()
        self.assertEqual((code, output), (status, ""), said)
        self.assertRegex(said, text)
        self.assertNotIn(self.secret, said)

    def list(self, **more):
        return self.run_host("raw", "01000000", **more)

    def test_a_wrong_token_a_wrong_scope_and_a_wrong_certificate(self):
        self.expect(self.list(PARVANE_TOKEN="x" * 43), 3, "the gateway does not know the token")
        self.expect(self.list(PARVANE_TOKEN=self.token("desk", "--scope", "view")), 3, "the token is none for phones")
        self.expect(self.list(PARVANE_FINGERPRINT="00" * 32), 3, "another one than the fingerprint says, it has " +
                    self.fingerprint)
        self.expect(self.list(PARVANE_FINGERPRINT=""), 3, "does not trust its certificate.*which here is " +
                    self.fingerprint)
        # --wait is for what passes by itself.
        waiting = self.run_host("--wait", "60", "raw", "00", link=self.plain, PARVANE_TOKEN="y" * 43)
        self.expect(waiting, 3, "does not know the token")

    def test_nobody_there(self):
        self.stop()
        self.expect(self.list(link=self.plain), 3, re.escape(self.plain) + ": connection refused")

    def test_no_gateway_there(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            run = self.list(link="ws://127.0.0.1:%d" % server.getsockname()[1])
            client, _ = server.accept()
            with client:
                client.sendall(b"HTTP/1.1 404 Not Found\r\n\r\n")
                self.expect(run, 3, r"no gateway of a watch \(status 404\)")

    def test_the_watch_away_and_another_phone(self):
        self.watch.close()
        self.expect(self.list(), 3, "the watch service is not running")
        self.watch = Watch(os.path.join(self.folder, "watch"))
        self.phone(self.secret)
        self.watch.accept()
        self.expect(self.list(), 3, "another phone is connected")

    def test_what_is_given_wrongly(self):
        for arguments, text in ((["--link", "http://h"], "of a gateway, or unix:PATH"),
                                (["--link", "ws://h/x"], "nothing but"),
                                (["--link", self.tls, "--socket", "/s"], "give one of them"),
                                (["--fingerprint", "00"], "--fingerprint has no effect"),
                                (["--link", self.plain, "--fingerprint", "00"], "no effect without TLS"),
                                (["--link", self.tls, "--fingerprint", "00"], "64 hexadecimal digits"),
                                (["--link", self.plain, "--token-file", "/nowhere"], "cannot read '/nowhere'")):
            code, _, said = Run(self, [*arguments, "raw", "00"], PARVANE_TOKEN="t").end()
            self.assertEqual(code, 2, said)
            self.assertIn(text, said)
        code, _, said = Run(self, ["--link", self.plain, "raw", "00"], PARVANE_TOKEN="").end()
        self.assertEqual((code, "--token-file FILE, or PARVANE_TOKEN" in said), (2, True), said)

    def test_a_token_file(self):
        self.watch.echo()
        file = os.path.join(self.folder, "token")
        with open(file, "w", encoding="utf-8") as text:
            text.write(self.secret + "\n")
        self.expect_echo(self.run_host("--token-file", file, "--fingerprint", self.fingerprint.replace(":", ""),
                                       *self.ECHOED, PARVANE_TOKEN="", PARVANE_FINGERPRINT=""))


class ComeAndGoTest(HostTest):
    """Links that end, and what is made of it."""

    def test_a_wait_for_the_watch_and_for_the_gateway(self):
        self.watch.close()
        waiting = self.run_host("--wait", "60", *self.ECHOED)
        until(lambda: self.status()["refusals"], "the first attempt")
        self.watch = Watch(os.path.join(self.folder, "watch"))
        self.watch.echo()
        self.expect_echo(waiting)

    def serve_activity(self, run):
        """Takes the phone, answers until its activity is started, and sends one reading, which it prints."""
        host = self.watch.accept()
        while (request := host.recv(1000))[0] & 0x0F != 3:
            host.send(bytes([request[0], 2, 0, request[3]]))
        host.send(bytes([request[0], 0, 14, 1, 0x11, 0, 0, 0, 0, 0, 0x0F, 0x42, 0x40, 0x3F, 0x80, 0, 0, 0]))
        self.assertTrue(run.process.stdout.readline(), run.said())
        return host

    def test_a_link_is_made_again_until_the_token_ends(self):
        run = self.run_host("watch", "activity")
        self.serve_activity(run).close()
        until(lambda: "does not let the gateway in; connecting again" in run.said(), "the loss")
        host = self.serve_activity(run)
        until(lambda: "connected again" in run.said(), "the second link")
        self.command("token", "remove", "phone")
        code, _, said = run.end()
        self.assertEqual(code, 1, said)
        self.assertIn("the token has ended", said)
        self.assertEqual(host.recv(1000), b"")

    def test_a_gateway_that_ends(self):
        run = self.run_host("watch", "activity", link=self.plain)
        self.serve_activity(run)
        self.stop()
        until(lambda: "it ends; connecting again" in run.said(), "the loss")
        until(lambda: "connection refused (is the gateway running?); trying again" in run.said(), "an attempt")
        run.process.send_signal(signal.SIGTERM)
        self.assertEqual(run.end()[0], 0)

    def test_what_was_sent_last_reaches_the_watch(self):
        run = self.run_host("raw", "--quiet-for", "0", *["%08x" % number for number in range(500)])
        host = self.watch.accept()
        self.assertEqual(run.end()[0], 0)
        self.assertEqual([int.from_bytes(host.recv(1000), "big") for _ in range(500)], list(range(500)))
        self.assertEqual(host.recv(1000), b"")


if __name__ == "__main__":
    unittest.main(warnings="ignore")
