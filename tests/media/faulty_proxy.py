"""A proxy in front of a server that does what networks and servers do wrong.

HttpProxy stands in front of an HTTP server (WebDAV, S3) and spoils what a fault says; TcpProxy in front
of any other (SFTP) drops or stalls a connection after some bytes. Both take a port that is free.
"""
import contextlib
import http.client
import http.server
import socket
import threading
import urllib.parse

MANY_SECONDS = 600  # longer than any test; a proxy that is closed ends its stalls at once


class Fault:
    """What is done to requests of some methods for names that end so, behind the first `after` of them."""

    def __init__(self, kind, methods, ending="", after=0, times=1 << 30, status=0):
        self.kind, self.methods, self.ending, self.status = kind, methods, ending, status
        self.left, self.times, self.lock, self.met = after, times, threading.Lock(), 0

    def meets(self, method, path):
        name = urllib.parse.unquote(path).split("?")[0].rstrip("/")
        if method not in self.methods.split() or not name.endswith(self.ending):
            return False
        with self.lock:
            self.left -= 1
            if self.left >= 0 or self.met >= self.times:
                return False
            self.met += 1
            return True


class HttpProxy:
    """fault: what goes wrong now, or None. requests: (method, path) of what came."""

    def __init__(self, host, port):
        self.behind, self.fault, self.requests, self.closed = (host, port), None, [], threading.Event()
        proxy = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def __getattr__(self, name):
                if name.startswith("do_"):
                    return lambda: proxy.handle(self)
                raise AttributeError(name)

            def log_message(self, *words):
                pass

            def handle(self):
                # A line that is cut ends here, too.
                with contextlib.suppress(OSError, ValueError):
                    super().handle()

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True).start()

    def close(self):
        self.closed.set()
        self.server.shutdown()
        self.server.server_close()

    @staticmethod
    def body_of(request):
        if "chunked" not in request.headers.get("Transfer-Encoding", ""):
            return request.rfile.read(int(request.headers.get("Content-Length") or 0))
        body = b""
        while size := int(request.rfile.readline().split(b";")[0], 16):
            body += request.rfile.read(size)
            request.rfile.readline()
        request.rfile.readline()
        return body

    @staticmethod
    def drop(request):
        """As a line that is cut: the other side gets no end of what it waits for."""
        request.close_connection = True
        with contextlib.suppress(OSError):
            request.wfile.flush()
            request.connection.shutdown(socket.SHUT_RDWR)

    def handle(self, request):
        method, path = request.command, request.path
        fault = self.fault
        met = fault is not None and fault.meets(method, path)
        kind = fault.kind if met else ""
        self.requests.append((method, path))
        try:
            self.answer(request, kind, fault)
        except (OSError, ValueError, http.client.HTTPException):
            self.drop(request)

    def answer(self, request, kind, fault):
        if kind == "cut upload":
            # Half of the body, and the line is gone; the server behind sees the same.
            length = int(request.headers.get("Content-Length") or 4096)
            part = request.rfile.read(length // 2)
            self.half_to_server(request, part)
            return self.drop(request)
        body = self.body_of(request)
        if kind == "stall":
            self.closed.wait(MANY_SECONDS)
            return self.drop(request)
        if kind == "status":
            return self.send(request, fault.status, [], b"")
        if kind == "short upload":
            body = body[:len(body) // 2]
        if kind == "wrong upload":
            body = body[:-1] + bytes([body[-1] ^ 1])
        status, headers, data = self.ask(request, body)
        if kind == "drop answer":
            return self.drop(request)
        if kind == "wrong download" and data:
            data = data[:len(data) // 2] + bytes([data[len(data) // 2] ^ 1]) + data[len(data) // 2 + 1:]
        if kind == "short download":
            data = data[:len(data) // 2]
        if kind == "cut download":
            return self.send(request, status, headers, data, half=True)
        return self.send(request, status, headers, data)

    def half_to_server(self, request, part):
        with contextlib.suppress(OSError), socket.create_connection(self.behind, timeout=60) as server:
            head = f"{request.command} {request.path} HTTP/1.1\r\n"
            for name, value in request.headers.items():
                head += f"{name}: {value}\r\n"
            server.sendall(head.encode() + b"\r\n" + part)

    def ask(self, request, body):
        server = http.client.HTTPConnection(*self.behind, timeout=60)
        try:
            headers = {name: value for name, value in request.headers.items()
                       if name.lower() not in ("transfer-encoding", "content-length", "connection", "expect")}
            if body or request.command in ("PUT", "POST"):
                headers["Content-Length"] = str(len(body))
            server.request(request.command, request.path, body or None, headers)
            answer = server.getresponse()
            return answer.status, answer.getheaders(), answer.read()
        finally:
            server.close()

    @staticmethod
    def send(request, status, headers, data, half=False):
        request.send_response_only(status)
        length = None
        for name, value in headers:
            if name.lower() == "content-length":
                length = value
            elif name.lower() not in ("transfer-encoding", "connection"):
                request.send_header(name, value)
        told = length if request.command == "HEAD" and length else len(data)
        if status not in (204, 304):
            request.send_header("Content-Length", str(told))
        request.end_headers()
        if request.command != "HEAD":
            request.wfile.write(data[:len(data) // 2] if half else data)
        if half:
            HttpProxy.drop(request)


class TcpProxy:
    """kind: "", "drop" or "stall", once a connection has carried `after` bytes to the server. rate: bytes a second
    of each connection to the server; 0: as many as there are."""

    def __init__(self, host, port):
        self.behind, self.kind, self.after, self.closed = (host, port), "", 0, threading.Event()
        self.rate = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self):
        self.closed.set()
        self.listener.close()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.listener.accept()
                server = socket.create_connection(self.behind, timeout=60)
                server.settimeout(None)
                threading.Thread(target=self.carry, args=(client, server, True), daemon=True).start()
                threading.Thread(target=self.carry, args=(server, client, False), daemon=True).start()

    def carry(self, source, sink, counts):
        carried = 0
        with contextlib.suppress(OSError):
            while data := source.recv(4096):
                carried += len(data)
                if counts and self.kind and carried > self.after:
                    if self.kind == "stall":
                        self.closed.wait(MANY_SECONDS)
                    break
                if counts and self.rate:
                    self.closed.wait(len(data) / self.rate)
                sink.sendall(data)
        for one in (source, sink):
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
