"""Web servers of many kinds, good and bad, and a runner of clients, inside one sandbox.

Run by url_sandbox.py in a network namespace of its own as `url_servers.py FOLDER`, with FOLDER
holding the certificates and nginx's configuration. Says "ready" when all servers listen; then each
line of standard input, {"argv": [...], "environment": {...}, "limit": seconds}, runs a program and is
answered by a line {"status": ..., "stdout": ..., "stderr": ...}.
"""

import json
import pathlib
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time

PLAIN_PORT = 8000
# Certificate folder name: port.
TLS_PORTS = {"good": 8443, "expired": 8444, "early": 8445, "elsewhere": 8446, "stranger": 8447,
             "selfsigned": 8448}
NO_TLS_PORT = 8449
SLOW_TLS_PORT = 8450
NO_CIPHER_PORT = 8451
NGINX_PORT = 8080
NGINX_TLS_PORT = 8081

# Seconds after which a client counts as hanging.
CLIENT_LIMIT = 300

# Longer than any time-out in the tests, shorter than CLIENT_LIMIT.
FOR_EVER = 200

# The running client's standard output, in the folder.
OUTPUT = "output"


def head(status, *lines):
    return "\r\n".join([f"HTTP/1.1 {status}", "Connection: close", *lines, "", ""]).encode("latin-1")


def text(body, *lines, status="200 OK"):
    return head(status, "Content-Type: text/plain; charset=utf-8",
                f"Content-Length: {len(body)}", *lines) + body


def redirect(location, status="302 Found", body=b"moved"):
    return text(body, f"Location: {location}", status=status)


def chunk(data):
    return b"%x\r\n%s\r\n" % (len(data), data)


def await_client(*lines):
    """Waits until the running client has printed one of `lines`."""
    end = time.monotonic() + FOR_EVER
    while time.monotonic() < end:
        if not set(lines).isdisjoint(pathlib.Path(sys.argv[1], OUTPUT).read_text().split("\n")[:-1]):
            return
        time.sleep(0.01)


def serve_chunked(send, request):
    send(head("200 OK", "Transfer-Encoding: chunked") + chunk(b"one") + chunk(b"two")
         + chunk(b"three") + b"0\r\nX-Trailer: late\r\n\r\n")


def serve_in_turn(send, request):
    """Sends each piece when the client has printed that it has the one before."""
    send(head("200 OK", "Transfer-Encoding: chunked"))
    for number, piece in enumerate(["one", "two", "three"], 1):
        send(chunk(piece.encode()))
        await_client(f"0 data {piece}", f"progress {number}")
    send(b"0\r\n\r\n")


def serve_until_closed(send, request):
    send(head("200 OK"))
    send(b"first")
    send(b"second")


def serve_last(send, request):
    """The client's second load ends first."""
    await_client("1 finish 5")
    send(text(b"late"))


def serve_slow_first(send, request):
    time.sleep(1.5)
    send(text(b"late"))


def serve_drip(send, request):
    """A byte a second for eight seconds."""
    send(head("200 OK", "Content-Length: 8"))
    for _ in range(8):
        send(b".")
        time.sleep(1)


def serve_silence(send, request):
    time.sleep(FOR_EVER)


def serve_stall(send, request):
    send(head("200 OK", "Content-Length: 100") + b"part")
    time.sleep(FOR_EVER)


def serve_half_head(send, request):
    send(b"HTTP/1.1 200 OK\r\nContent-Le")


def send_for_ever(send, piece):
    """Until the client closes the connection."""
    while True:
        send(piece)


def serve_endless_head(send, request):
    send(b"HTTP/1.1 200 OK\r\n")
    send_for_ever(send, b"X-More: " + b"x" * 1000 + b"\r\n")


def serve_endless_body(send, request):
    send(head("200 OK"))
    send_for_ever(send, bytes(1 << 20))


def serve_endless_trailers(send, request):
    send(head("200 OK", "Transfer-Encoding: chunked") + chunk(b"part") + b"0\r\n")
    send_for_ever(send, b"X-More: x\r\n" * 1000)


def serve_trailers(send, request):
    """Headers and trailers that are together as long as the path says."""
    start = head("200 OK", "Transfer-Encoding: chunked")
    left = int(request.path.rsplit("/", 1)[1]) - len(start)
    count, rest = divmod(left - 100, 1000)
    lines = [b"X-More: ".ljust(998, b"x")] * count + [b"X-Last: ".ljust(rest + 98, b"x")]
    send(start + chunk(b"part") + b"\r\n".join([b"0", *lines, b"", b""]))


def serve_endless_hints(send, request):
    send_for_ever(send, b"HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" * 100)


def serve_length(send, request):
    """As many bytes as the path says."""
    size = int(request.path.rsplit("/", 1)[1])
    send(head("200 OK"))
    for start in range(0, size, 1 << 20):
        send(bytes(min(1 << 20, size - start)))


def serve_redirect_chain(send, request):
    left = int(request.path.rsplit("/", 1)[1])
    send(redirect(f"/chain/{left - 1}") if left else text(b"arrived"))


def serve_echo(send, request):
    """Answers with the request as it came, its line breaks as '|'."""
    send(text((request.head + b"|" + request.body).replace(b"\r\n", b"|")))


def serve_reset(send, request):
    send(head("200 OK", "Content-Length: 1000") + b"part")
    request.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


FIXED = {
    "/plain": text(b"hello"),
    "/empty": text(b""),
    "/no-content": head("204 No Content"),
    "/missing": text(b"not here", status="404 Not Found"),
    "/broken": text(b"sorry", status="500 Internal Server Error"),
    "/early-hints": b"HTTP/1.1 103 Early Hints\r\nX-Early: yes\r\n\r\n" + text(b"hello"),
    "/twice": text(b"hello", "X-List: a", "X-List: b"),
    "/huge": head("200 OK", "Content-Length: 5000000000") + b"part",
    "/coded": text(b"not really gzip", "Content-Encoding: gzip"),
    "/loop": redirect("/loop"),
    "/relative": redirect("chain/../plain"),
    "/absolute": redirect(f"https://good.test:{TLS_PORTS['good']}/plain"),
    "/to-plain-http": redirect(f"http://good.test:{PLAIN_PORT}/plain"),
    "/to-blanks": redirect("/a b"),
    "/a%20b": text(b"blank"),
    "/to-accent": redirect("/caf\xe9"),
    "/to-wrong-host": redirect(f"https://other.test:{TLS_PORTS['good']}/plain"),
    "/to-file": redirect("file:///etc/passwd"),
    "/to-ftp": redirect(f"ftp://good.test:{PLAIN_PORT}/plain"),
    "/to-javascript": redirect("javascript:alert(1)"),
    "/to-nowhere": redirect("http://"),
    "/no-location": text(b"stay", status="302 Found"),
    "/see-other": redirect("/echo", status="303 See Other"),
    "/found": redirect("/echo"),
    "/temporary": redirect("/echo", status="307 Temporary Redirect"),
    "/permanent": redirect("/echo", status="308 Permanent Redirect"),
    "/choices": redirect("/echo", status="300 Multiple Choices"),
    "/not-modified": head("304 Not Modified", "Location: /echo"),
    "/to-stall": redirect("/stall"),
    "/cookie": text(b"moved", "Location: /echo", "Set-Cookie: kind=oat; Path=/; Max-Age=1000",
                    status="302 Found"),
    "/short": head("200 OK", "Content-Length: 1000") + b"part",
    "/short-chunk": head("200 OK", "Transfer-Encoding: chunked") + b"100\r\npart",
    "/bad-chunk": head("200 OK", "Transfer-Encoding: chunked") + b"what\r\n",
    "/garbage": b"220 mail.test ESMTP\r\n",
    "/bad-length": head("200 OK", "Content-Length: many"),
    "/hang-up": b"",
}

BEHAVIOURS = {
    "/chunked": serve_chunked,
    "/in-turn": serve_in_turn,
    "/last": serve_last,
    "/until-closed": serve_until_closed,
    "/slow-first": serve_slow_first,
    "/drip": serve_drip,
    "/silence": serve_silence,
    "/stall": serve_stall,
    "/half-head": serve_half_head,
    "/endless-head": serve_endless_head,
    "/endless-body": serve_endless_body,
    "/endless-trailers": serve_endless_trailers,
    "/endless-hints": serve_endless_hints,
    "/trailers": serve_trailers,
    "/length": serve_length,
    "/chain": serve_redirect_chain,
    "/echo": serve_echo,
    "/reset": serve_reset,
}


class Request:
    """A request as it came: `head` its bytes up to the blank line, `body` what follows."""

    def __init__(self, connection):
        self.connection = connection
        data = b""
        while b"\r\n\r\n" not in data:
            more = connection.recv(65536)
            if not more:
                raise ConnectionError("no request")
            data += more
        self.head, _, self.body = data.partition(b"\r\n\r\n")
        self.path = self.head.split()[1].decode("latin-1")
        length = 0
        for line in self.head.split(b"\r\n"):
            if line.lower().startswith(b"content-length:"):
                length = int(line.split(b":")[1])
        while len(self.body) < length:
            self.body += connection.recv(65536)


def greet(connection):
    """Sends first, and not TLS."""
    with connection:
        connection.sendall(b"220 mail.test ESMTP\r\n")
        connection.recv(65536)


def trickle(connection):
    """Begins a TLS record of 16 KiB, and sends it too slowly to ever complete it."""
    try:
        with connection:
            connection.sendall(b"\x16\x03\x03\x40\x00")
            while True:
                connection.sendall(b"\x02")
                time.sleep(0.05)
    except OSError:
        pass  # The client went away.


def serve(connection, context):
    try:
        with connection:
            if context is not None:
                connection = context.wrap_socket(connection, server_side=True)
            request = Request(connection)
            if request.path in FIXED:
                connection.sendall(FIXED[request.path])
            else:
                name = "/" + request.path.split("/")[1].split("?")[0]
                BEHAVIOURS.get(name, serve_echo)(connection.sendall, request)
            if context is not None:
                connection.unwrap()
    except (OSError, ValueError):
        pass  # The client went away, which is what many tests are about.


def listen(port, handler, *arguments):
    listener = socket.create_server(("127.0.0.1", port), backlog=64)

    def accept():
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=handler, args=(connection, *arguments), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()


def context_of(folder, name):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(folder / f"{name}.crt", folder / f"{name}.key")
    return context


def context_without_cipher(folder):
    """The only cipher does not fit the certificate, so the client and the server share none."""
    context = context_of(folder, "good")
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers("ECDHE-ECDSA-AES128-GCM-SHA256")
    return context


def answer_names():
    """A name server that knows no name, and does not answer for silent.test."""
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind(("127.0.0.1", 53))

    def answer():
        while True:
            query, client = server.recvfrom(4096)
            if b"\x06silent\x04test" not in query:
                server.sendto(query[:2] + b"\x81\x83" + query[4:6] + bytes(6) + query[12:], client)

    threading.Thread(target=answer, daemon=True).start()


def run_client(command, output):
    try:
        with output.open("wb") as stdout:
            done = subprocess.run(command["argv"], env=command["environment"],
                                  timeout=command["limit"] or CLIENT_LIMIT,
                                  stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.PIPE,
                                  check=False)
        status, stderr = done.returncode, done.stderr.decode()
    except subprocess.TimeoutExpired:
        status, stderr = None, "hangs"
    return {"status": status, "stdout": output.read_text(), "stderr": stderr}


def main():
    folder = pathlib.Path(sys.argv[1])
    listen(PLAIN_PORT, serve, None)
    for name, port in TLS_PORTS.items():
        listen(port, serve, context_of(folder, name))
    listen(NO_TLS_PORT, greet)
    listen(SLOW_TLS_PORT, trickle)
    listen(NO_CIPHER_PORT, serve, context_without_cipher(folder))
    answer_names()
    nginx = subprocess.Popen(["nginx", "-p", str(folder), "-c", "nginx.conf", "-e", "error.log"])
    try:
        for port in (NGINX_PORT, NGINX_TLS_PORT):
            while socket.socket().connect_ex(("127.0.0.1", port)) != 0:
                assert nginx.poll() is None, "nginx ended"
                time.sleep(0.05)
        print("ready", flush=True)
        for line in sys.stdin:
            print(json.dumps(run_client(json.loads(line), folder / OUTPUT)), flush=True)
    finally:
        nginx.terminate()
        nginx.wait()


if __name__ == "__main__":
    main()
