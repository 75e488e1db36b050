"""The vendor's download server, in the InstallRoot that the programs run in.

The programs find it under its real name and port: the root's /etc/hosts leads there, and its trust
store holds the test authority alone. No other machine is in the root's network, so the programs
reach only servers that are started here.
"""

import pathlib

from install_root import as_user
from url_sandbox import Certificates

CURRENT = "/get/korvelplayer/update/current"

# The folder of the server's files in the root.
FOLDER = "/run/server"
PROGRAM = FOLDER + "/serve_and_run.py"
ACCESS_LOG = FOLDER + "/access.log"
NAMES_LOG = FOLDER + "/names.log"
WWW = FOLDER + "/www"

NGINX = f"""
daemon off;
master_process off;
user root root;
pid {FOLDER}/nginx.pid;
events {{}}
http {{
  log_format request escape=none '$request';
  access_log {ACCESS_LOG} request;
  client_body_temp_path {FOLDER}/body;
  proxy_temp_path {FOLDER}/proxy;
  fastcgi_temp_path {FOLDER}/fastcgi;
  uwsgi_temp_path {FOLDER}/uwsgi;
  scgi_temp_path {FOLDER}/scgi;
  server {{
    listen 127.0.0.1:443 ssl;
    ssl_certificate {FOLDER}/server.crt;
    ssl_certificate_key {FOLDER}/server.key;
    root {WWW};
    location {CURRENT}/install/ {{ return 200 "thank you"; }}
    location {CURRENT}/moved/ {{ return 302 {CURRENT}/xml/; }}
  }}
}}
"""


def make_certificates(folder, host):
    """Makes the certificates of the server `host` in the empty folder `folder`, and returns it:
    "good" is valid, the others are each wrong in one way. "trusted" is the authority in the root's
    trust store."""
    certificates = Certificates(folder)
    certificates.make_authority("trusted")
    certificates.make_authority("unknown")
    certificates.make_server("good", "trusted", host=host)
    certificates.make_server("elsewhere", "trusted", host="elsewhere.test")
    certificates.make_server("expired", "trusted", host=host,
                             dates=("-startdate", "20010101000000Z", "-enddate", "20020101000000Z"))
    certificates.make_server("stranger", "unknown", host=host)
    return folder


class DownloadServer:
    """The server in the InstallRoot `root`. It runs as long as a program that run() starts.

    `kind` is its behaviour: "nginx" answers, "silent" accepts and never answers, "leaving" closes
    the connection before it has read the request, "express" answers and meanwhile makes the flag
    file of an express install, "names" is a name server that knows no name, "endless" and "endless
    trailers" answer without end, "trickling" also, but slowly, and sets the clock of RunningClock.cpp
    forward when the program has begun to read, and "none" does not listen.
    """

    kind = "nginx"

    def __init__(self, root, certificates):
        self._root = root
        self._certificates = certificates
        root.mkdir(FOLDER)
        root.mkdir(WWW)
        self.configure(NGINX)
        root.write(ACCESS_LOG, "")
        root.write("/etc/hosts", f"127.0.0.1 localhost {root.vendor.download_host}\n")
        root.empty("/etc/ssl/certs")
        root.mount(certificates / "trusted.crt", "/etc/ssl/certs/ca-certificates.crt")
        root.mount(pathlib.Path(__file__).with_name("serve_and_run.py"), PROGRAM)
        self.set_certificate("good")

    def configure(self, text):
        """Writes `text` as nginx's configuration."""
        self._root.write(FOLDER + "/nginx.conf", text)

    def set_certificate(self, name):
        """Has the server show the certificate `name` of make_certificates()."""
        for suffix in (".crt", ".key"):
            self._root.write(f"{FOLDER}/server{suffix}",
                             (self._certificates / (name + suffix)).read_bytes())

    def trust_from_folder(self, name):
        """Adds the authority `name` of make_certificates() to the folder of the trust store, as
        openssl-rehash(1) does; not to its file."""
        inside = "/etc/ssl/certs/" + Certificates(self._certificates).hashed_name(name)
        self._root.mount(self._certificates / f"{name}.crt", inside)

    def offer(self, path, content):
        """Has the server answer `content` under CURRENT + `path`."""
        self._root.write(WWW + CURRENT + path, content)

    def run(self, command, user=None, **options):
        """Runs a command beside the server, which runs as root; options as for
        InstallRoot.execute()."""
        if user is not None:
            command = [*as_user(user), *command]
        return self._root.execute(["/usr/bin/python3", PROGRAM, self.kind, *command], **options)

    def names(self):
        """The names that the name server was asked for, each once, in order."""
        return list(dict.fromkeys(self._root.path(NAMES_LOG).read_text().splitlines()))

    def requests(self):
        """The request lines that the server received, as it logged them."""
        return self._root.path(ACCESS_LOG).read_text().splitlines()

    def sent(self):
        """How many bytes of an endless answer were sent before the program closed the
        connection."""
        return int(self._root.path(FOLDER + "/sent").read_text())
