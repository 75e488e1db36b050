"""Runs a program beside a server: serve_and_run.py KIND COMMAND [ARGUMENT...].

download_server.py lists the kinds. Ends when the program has ended, with its exit status, or with
128 plus the signal's number.
"""

import pathlib
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time

FOLDER = pathlib.Path(__file__).parent
ADDRESS = ("127.0.0.1", 443)
NAME_SERVER_ADDRESS = ("127.0.0.1", 53)
# A reply's flags: a response, no such name (RFC 1035).
NO_SUCH_NAME = b"\x81\x83"
SENT = FOLDER / "sent"
HEAD = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
MEBIBYTE = 1 << 20
EXPRESS_FLAG = pathlib.Path("/tmp/KPExpressInstall.flag")
# Sets the clock of a program with RunningClock.cpp forward.
LATER = pathlib.Path("/tmp/later")
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: close\r\n\r\nthank you"

sent = 0


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


def leave(connection):
    """Agrees on the encryption, and resets the connection while the other side writes its request."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(FOLDER / "server.crt", FOLDER / "server.key")
    stream = context.wrap_socket(connection, server_side=True)
    with open(FOLDER / "access.log", "a", encoding="latin-1") as log:
        log.write("connection\n")
    stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    stream.close()


def accept_request(connection):
    """The encrypted connection, once a request has come through it and is logged."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(FOLDER / "server.crt", FOLDER / "server.key")
    stream = context.wrap_socket(connection, server_side=True)
    request = b""
    while b"\r\n\r\n" not in request:
        request += stream.recv(65536)
    with open(FOLDER / "access.log", "a", encoding="latin-1") as log:
        log.write(request.split(b"\r\n")[0].decode("latin-1") + "\n")
    return stream


def answer_and_make_flag(connection):
    with accept_request(connection) as stream:
        # It must not exist: the pingback reports it and removes it.
        EXPRESS_FLAG.touch(exist_ok=False)
        stream.sendall(ANSWER)


def start_name_server():
    """Answers each question that there is no such name, and writes the name to a log."""
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind(NAME_SERVER_ADDRESS)

    def answer():
        while True:
            question, client = server.recvfrom(512)
            labels, at = [], 12
            while question[at] != 0:
                labels.append(question[at + 1:at + 1 + question[at]].decode())
                at += 1 + question[at]
            with open(FOLDER / "names.log", "a", encoding="latin-1") as log:
                log.write(".".join(labels) + "\n")
            # The question alone: name, type and class, without the records that may follow it.
            server.sendto(question[:2] + NO_SUCH_NAME + b"\0\1" + bytes(6) + question[12:at + 5],
                          client)

    threading.Thread(target=answer, daemon=True).start()


def answer_without_end(connection, start, piece):
    """Sends `start`, then `piece` again and again until the other side closes the connection, and
    counts the bytes of the pieces."""
    global sent
    with accept_request(connection) as stream:
        stream.sendall(start)
        try:
            while True:
                stream.sendall(piece)
                sent += len(piece)
        except OSError:
            pass


def send_endless_body(connection):
    answer_without_end(connection, HEAD, b"100000\r\n" + bytes(MEBIBYTE) + b"\r\n")


def send_endless_trailers(connection):
    answer_without_end(connection, HEAD + b"4\r\nbody\r\n0\r\n", b"X-More: x\r\n" * 1000)


def trickle(connection):
    """Sends more than waits in buffers for a program that does not read, lets time pass for the
    program, and sends a little at a time until the program closes the connection."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 16)
    with accept_request(connection) as stream:
        stream.sendall(HEAD)
        for _ in range(4):
            stream.sendall(b"100000\r\n" + b" " * MEBIBYTE + b"\r\n")
        LATER.touch()
        try:
            while True:
                stream.sendall(b"1\r\n \r\n")
                time.sleep(0.01)
        except OSError:
            pass


HANDLERS = {"silent": stay_silent, "leaving": leave, "express": answer_and_make_flag,
            "endless": send_endless_body, "endless trailers": send_endless_trailers,
            "trickling": trickle}


def main():
    kind, *command = sys.argv[1:]
    nginx = start_nginx() if kind == "nginx" else None
    if kind in HANDLERS:
        listen(HANDLERS[kind])
    elif kind == "names":
        start_name_server()
    try:
        status = subprocess.run(command, check=False).returncode
    finally:
        SENT.write_text(str(sent), encoding="ascii")
        if nginx:
            nginx.terminate()
            nginx.wait()
    sys.exit(status if status >= 0 else 128 - status)


if __name__ == "__main__":
    main()
