"""Runs a program beside a server: serve_and_run.py KIND COMMAND [ARGUMENT...].

download_server.py tells the kinds. Ends with the program's exit status, negative ones as 128 and
the signal, when that has ended.
"""

import pathlib
import socket
import ssl
import subprocess
import sys
import threading
import time

FOLDER = pathlib.Path(__file__).parent
ADDRESS = ("127.0.0.1", 443)
EXPRESS_FLAG = pathlib.Path("/tmp/KPExpressInstall.flag")
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: close\r\n\r\nthank you"


def start_nginx():
    nginx = subprocess.Popen(["/usr/sbin/nginx", "-c", FOLDER / "nginx.conf",
                              "-e", FOLDER / "error.log"])
    while socket.socket().connect_ex(ADDRESS) != 0:
        assert nginx.poll() is None, "nginx ended"
        time.sleep(0.02)
    return nginx


def listen(handler):
    listener = socket.create_server(ADDRESS)

    def accept():
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=handler, args=(connection,), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()


def stay_silent(connection):
    """Keeps the connection, which the access log counts, until the other side closes it."""
    with open(FOLDER / "access.log", "a", encoding="latin-1") as log:
        log.write("connection\n")
    while connection.recv(65536):
        pass


def answer_and_make_flag(connection):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(FOLDER / "server.crt", FOLDER / "server.key")
    with context.wrap_socket(connection, server_side=True) as stream:
        request = b""
        while b"\r\n\r\n" not in request:
            request += stream.recv(65536)
        with open(FOLDER / "access.log", "a", encoding="latin-1") as log:
            log.write(request.split(b"\r\n")[0].decode("latin-1") + "\n")
        # It must be gone: the pingback reports it and takes it away.
        EXPRESS_FLAG.touch(exist_ok=False)
        stream.sendall(ANSWER)


def main():
    kind, *command = sys.argv[1:]
    nginx = start_nginx() if kind == "nginx" else None
    if kind == "silent":
        listen(stay_silent)
    elif kind == "express":
        listen(answer_and_make_flag)
    try:
        status = subprocess.run(command, check=False).returncode
    finally:
        if nginx:
            nginx.terminate()
            nginx.wait()
    sys.exit(status if status >= 0 else 128 - status)


if __name__ == "__main__":
    main()
