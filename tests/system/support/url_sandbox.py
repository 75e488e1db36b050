"""A sandbox with a network of its own, in which url_servers.py serves and clients run.

Its names are good.test and other.test; the only trusted certificate authority is made for the
sandbox.
"""

import json
import os
import pathlib
import subprocess

import sanitizer
import url_servers
from install_root import profile_of_this_run

SERVERS = pathlib.Path(url_servers.__file__)

HOSTS = "127.0.0.1 localhost good.test other.test\n"
# One try, so that a name without an answer fails within the client's limit.
RESOLVER = "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n"

BIG_FILE_SIZE = 50 * 1024 * 1024

NGINX = """
daemon off;
master_process off;
user root root;
pid nginx.pid;
events {{}}
http {{
  access_log access.log;
  client_body_temp_path temporary/body;
  proxy_temp_path temporary/proxy;
  fastcgi_temp_path temporary/fastcgi;
  uwsgi_temp_path temporary/uwsgi;
  scgi_temp_path temporary/scgi;
  server {{
    listen 127.0.0.1:{plain};
    listen 127.0.0.1:{tls} ssl;
    server_name good.test;
    ssl_certificate good.crt;
    ssl_certificate_key good.key;
    root www;
    location = /moved {{ return 301 https://good.test:{tls}/plain.txt; }}
    location = /again {{ return 302 https://good.test:{tls}/again; }}
    location /get/ {{ return 200 "$request_uri"; }}
  }}
}}
"""

AUTHORITY = """
[ca]
default_ca = test
[test]
dir = {folder}
unique_subject = no
database = $dir/{name}.index
new_certs_dir = $dir
serial = $dir/{name}.serial
default_md = sha256
policy = anything
copy_extensions = copy
[anything]
commonName = supplied
"""


class Certificates:
    """Keys and certificates in `folder`, as openssl(1) makes them."""

    def __init__(self, folder):
        self._folder = folder

    def make_authority(self, name):
        self._openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                      "-subj", f"/CN=Test authority {name}", "-keyout", f"{name}.key",
                      "-out", f"{name}.crt", "-addext", "keyUsage=critical,keyCertSign")
        (self._folder / f"{name}.index").touch()
        (self._folder / f"{name}.serial").write_text("01\n")
        (self._folder / f"{name}.cnf").write_text(AUTHORITY.format(folder=self._folder, name=name))

    def make_server(self, name, authority, host="good.test", dates=("-days", "30")):
        self._openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=Test server",
                      "-addext", f"subjectAltName=DNS:{host}", "-keyout", f"{name}.key",
                      "-out", f"{name}.csr")
        self._openssl("ca", "-batch", "-notext", "-config", f"{authority}.cnf",
                      "-cert", f"{authority}.crt", "-keyfile", f"{authority}.key", *dates,
                      "-in", f"{name}.csr", "-out", f"{name}.crt")

    def make_self_signed(self, name):
        self._openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                      "-subj", "/CN=good.test", "-addext", "subjectAltName=DNS:good.test",
                      "-keyout", f"{name}.key", "-out", f"{name}.crt")

    def hashed_name(self, name):
        """The name under which OpenSSL looks for the authority `name` in a folder."""
        return self._openssl("x509", "-noout", "-hash", "-in", f"{name}.crt").strip() + ".0"

    def _openssl(self, *arguments):
        return subprocess.run(["openssl", *arguments], cwd=self._folder, check=True,
                              capture_output=True, text=True).stdout


class UrlSandbox:
    """The sandbox, with its files in the empty folder `folder`. To be closed."""

    def __init__(self, folder, client):
        self._folder = folder
        self.client = client
        self._write_files()
        self._process = subprocess.Popen(
            ["bwrap", "--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL",
             "--unshare-net", "--unshare-pid", "--die-with-parent",
             "--dev-bind", "/", "/", "--proc", "/proc",
             "--ro-bind", str(folder / "hosts"), "/etc/hosts",
             "--ro-bind", str(folder / "resolv.conf"), "/etc/resolv.conf",
             "--tmpfs", "/etc/ssl/certs",
             "--ro-bind", str(folder / "trusted.crt"), "/etc/ssl/certs/ca-certificates.crt",
             "--", "/usr/bin/python3", str(SERVERS), str(folder)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout.readline() == "ready\n"

    def close(self):
        self._process.stdin.close()
        self._process.wait()

    def load(self, *arguments, environment=None, wrapper=(), check_leaks=False, limit=None):
        """The lines that url_client prints with `arguments`. It must end by itself, with status 0
        and without output on standard error, within `limit` seconds if given. `wrapper` is a command
        that runs it."""
        answer = self.run([*wrapper, self.client, *arguments], environment, check_leaks, limit)
        assert (answer["status"], answer["stderr"]) == (0, ""), answer
        return answer["stdout"].splitlines()

    def run(self, argv, environment=None, check_leaks=False, limit=None):
        """Runs `argv` with the variables of `environment` and a PATH. The result has "status",
        "stdout" and "stderr"."""
        variables = sanitizer.options(check_leaks)
        profile = profile_of_this_run()
        if profile:
            variables["LLVM_PROFILE_FILE"] = profile
        variables.update(PATH="/usr/bin:/bin", **(environment or {}))
        command = {"argv": [str(each) for each in argv], "environment": variables,
                   "limit": limit}
        self._process.stdin.write(json.dumps(command) + "\n")
        self._process.stdin.flush()
        return json.loads(self._process.stdout.readline())

    def nginx_requests(self):
        """The request lines that nginx answered."""
        lines = (self._folder / "access.log").read_text().splitlines()
        return [line.split('"')[1] for line in lines]

    def usage(self, url):
        """The cost of loading `url`, by name: "turns" of the run loop and "memory" in bytes."""
        # A sanitizer keeps what is freed, to find late uses of it.
        options = sanitizer.options()["ASAN_OPTIONS"] + ":quarantine_size_mb=0"
        words = self.load("--summary", url, environment={"ASAN_OPTIONS": options})[-1].split()
        return {words[0]: int(words[1]), words[2]: int(words[3]) * 1024}

    def path(self, name):
        return self._folder / name

    def _write_files(self):
        certificates = Certificates(self._folder)
        certificates.make_authority("trusted")
        certificates.make_authority("unknown")
        certificates.make_server("good", "trusted")
        certificates.make_server("elsewhere", "trusted", host="elsewhere.test")
        certificates.make_server("expired", "trusted", dates=("-startdate", "20010101000000Z",
                                                              "-enddate", "20020101000000Z"))
        certificates.make_server("early", "trusted", dates=("-startdate", "20900101000000Z",
                                                            "-enddate", "20910101000000Z"))
        certificates.make_server("stranger", "unknown")
        certificates.make_self_signed("selfsigned")
        (self._folder / "hosts").write_text(HOSTS)
        (self._folder / "resolv.conf").write_text(RESOLVER)
        (self._folder / "nginx.conf").write_text(NGINX.format(
            plain=url_servers.NGINX_PORT, tls=url_servers.NGINX_TLS_PORT))
        (self._folder / "temporary").mkdir()
        www = self._folder / "www"
        www.mkdir()
        (www / "plain.txt").write_text("hello")
        (www / "empty.txt").write_text("")
        (www / "big.bin").write_bytes(bytes(range(256)) * (BIG_FILE_SIZE // 256))
