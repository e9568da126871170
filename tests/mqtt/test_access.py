"""Who may talk to the broker and to imported names: each refusal says what is wrong."""

import os
import subprocess
import unittest

import broker
import support
import tovik


class Tls(broker.Case):
    def start_broker(self, options=None):
        """Each test says with what certificates."""

    def serve(self, days="10", host="127.0.0.1", client="false"):
        self.authority("ca")
        self.authority("other")
        self.certificate("server", days, host)
        self.certificate("client", "10", host)
        self.broker_options = f"""cafile {self.folder}/ca.pem
certfile {self.folder}/server.pem
keyfile {self.folder}/server.key
allow_anonymous true
require_certificate {client}
"""
        super().start_broker()

    def openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True,
                       timeout=support.DEADLINE)

    def authority(self, name):
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                     "-nodes", "-keyout", f"{name}.key", "-out", f"{name}.pem", "-subj",
                     f"/CN={name}", "-days", "10")

    def certificate(self, name, days, host):
        self.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                     "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={name}",
                     "-addext", f"subjectAltName=IP:{host}")
        self.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                     "-CAcreateserial", "-out", f"{name}.pem", "-days", days, "-copy_extensions",
                     "copyall")

    def tries(self, *arguments):
        return self.bridge("--prefix", self.prefix, support.unique_name(), *arguments)

    def test_connects_to_a_broker_of_a_trusted_authority(self):
        self.serve()
        self.tries("--cafile", self.folder / "ca.pem").says(": connected to the broker")
        for trusted in (("--cafile", self.folder / "other.pem"), ("--tls",)):
            self.tries(*trusted).says("cannot connect to the broker: its certificate is not "
                                      "accepted: self-signed certificate in certificate chain")
        # The broker speaks TLS, and the bridge does not.
        self.tries().says("cannot connect to the broker: ")

    def test_refuses_a_certificate_that_has_expired_or_is_of_another_host(self):
        for certificate, why in (
                ({"days": "-1"}, "its certificate is not accepted: certificate has expired"),
                ({"host": "127.0.0.2"}, "Error: host name verification failed.")):
            self.serve(**certificate)
            self.tries("--cafile", self.folder / "ca.pem").says(
                "cannot connect to the broker: " + why)
            self.broker.kill()

    def test_has_a_certificate_of_its_own(self):
        self.serve(client="true")
        trusted = ("--cafile", self.folder / "ca.pem")
        self.tries(*trusted, "--cert", self.folder / "client.pem", "--key",
                   self.folder / "client.key").says(": connected to the broker")
        self.tries(*trusted).says("TLS")


class Passwords(broker.Case):
    """The broker's access control list is that of docs/beyond.md."""

    broker_options = """password_file {folder}/passwords
acl_file {folder}/acl
"""

    def start_broker(self, options=None):
        for user in ("kitchen", "hall", "operator"):
            create = [] if (self.folder / "passwords").exists() else ["-c"]
            subprocess.run(["mosquitto_passwd", *create, "-b", self.folder / "passwords", user,
                            "secret"], check=True, capture_output=True)
            (self.folder / user).write_text("secret\n")
            (self.folder / user).chmod(0o600)
        page = (support.SOURCE / "docs/beyond.md").read_text()
        acl = page.split("<!-- file: acl -->\n```\n")[1].split("```")[0]
        (self.folder / "acl").write_text(acl.replace("site/", self.prefix + "/"))
        super().start_broker(options)

    def client(self, program, *arguments):
        return super().client(program, "-u", "operator", "-P", "secret", *arguments)

    def bridge(self, *arguments, user="kitchen", **options):
        return super().bridge("--user", user, "--password-file", self.folder / user, *arguments,
                              **options)

    def test_are_needed(self):
        (self.folder / "kitchen").write_text("wrong\n")
        for user in ("kitchen", "nobody"):
            (self.folder / user).write_text("wrong\n")
            (self.folder / user).chmod(0o600)
            bridge = self.bridge("--prefix", self.prefix + "/kitchen", "lamp", user=user,
                                 name=support.unique_name())
            bridge.says("cannot connect to the broker: Not authorized")

    def test_let_two_bridges_do_what_the_list_allows(self):
        lamp = self.lamp()
        export = self.bridge("--prefix", self.prefix + "/kitchen", lamp.name)
        export.says("exported as")
        base = f"{self.prefix}/kitchen/{lamp.name}"
        name = support.unique_name("here")
        self.bridge("--import", f"{name}={base}", user="hall").says(": open, for")
        answer = tovik.call(name, {"command": "add", "a": 1, "b": 2}, support.DEADLINE)
        self.assertEqual(answer.result, 3)

    def test_do_not_let_a_bridge_export_what_is_not_its_own(self):
        lamp = self.lamp()
        export = self.bridge("--prefix", self.prefix + "/kitchen", lamp.name, user="hall")
        base = f"{self.prefix}/kitchen/{lamp.name}"
        export.says(f"the broker refuses '{base}/online': Not authorized")


class Admission(broker.Case):
    def status(self, name, user):
        script = "import sys, support, tovik\n" \
                 "message = {'command': 'echo', 'value': 1}\n" \
                 "try: print(tovik.call(sys.argv[1], message, 10).status)\n" \
                 "except tovik.ConnectionLost: print(-1)"
        command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups",
                   "/usr/bin/python3", "-B", "-c", script, name]
        done = subprocess.run(command, capture_output=True, text=True, timeout=support.DEADLINE,
                              cwd=support.SOURCE / "tests/python")
        self.assertEqual(done.returncode, 0, done.stderr)
        return int(done.stdout)

    @unittest.skipUnless(os.geteuid() == 0, "becoming other users takes root")
    def test_is_for_the_own_user_and_root_and_those_that_are_named(self):
        lamp = self.exported()
        here = self.imported(lamp.base, "--admit-user", "1234")
        self.assertEqual(self.status(here.name, 0), 0)
        self.assertEqual(self.status(here.name, 1234), 0)
        self.assertEqual(self.status(here.name, 1235), -1)
