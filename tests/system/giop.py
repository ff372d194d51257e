"""Object references and single GIOP 1.2 requests by hand, for callers that no ORB would be."""

import socket
import ssl
import struct

TAG_IIOP = 0
TAG_SSL = 20


class Reader:
    """CDR; alignment counts from the start of the data."""

    def __init__(self, data, little=None, position=0):
        self.data = data
        self.position = position
        if little is None:
            little = self.octet() == 1
        self.order = "<" if little else ">"

    def octet(self):
        self.position += 1
        return self.data[self.position - 1]

    def number(self, form, size):
        self.position += -self.position % size
        value, = struct.unpack_from(self.order + form, self.data, self.position)
        self.position += size
        return value

    def ulong(self):
        return self.number("I", 4)

    def ushort(self):
        return self.number("H", 2)

    def octets(self):
        size = self.ulong()
        self.position += size
        return self.data[self.position - size:self.position]

    def string(self):
        return self.octets()[:-1].decode()


class Ior:
    """Type id, host, ports and object key of a stringified reference."""

    def __init__(self, text):
        reader = Reader(bytes.fromhex(text.strip()[4:]))
        self.type_id = reader.string()
        self.profiles = [(reader.ulong(), reader.octets()) for _ in range(reader.ulong())]
        body = Reader(next(data for tag, data in self.profiles if tag == TAG_IIOP))
        self.version = (body.octet(), body.octet())
        self.host = body.string()
        self.port = body.ushort()
        self.key = body.octets()
        self.components = {body.ulong(): body.octets() for _ in range(body.ulong())}
        self.tls_port = None
        if TAG_SSL in self.components:
            component = Reader(self.components[TAG_SSL])
            component.ushort(), component.ushort()
            self.tls_port = component.ushort()


def fetch_ior(port, host="127.0.0.1", timeout=10):
    with socket.create_connection((host, port), timeout) as connection:
        text = b""
        while chunk := connection.recv(65536):
            text += chunk
    return text.decode()


def tls(host, port, identity=None, timeout=20):
    """A TLS connection; `identity` is a folder with certificate.pem and key.pem, or nothing."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if identity is not None:
        context.load_cert_chain(identity / "certificate.pem", identity / "key.pem")
    return context.wrap_socket(socket.create_connection((host, port), timeout))


def header(kind, size):
    return b"GIOP\1\2\1" + bytes([kind]) + struct.pack("<I", size)


def request(key, operation, body=b"", number=1):
    """A whole Request message that expects an answer; `body` is aligned to 8."""
    data = struct.pack("<IB3xHxxI", number, 3, 0, len(key)) + key
    data += b"\0" * (-len(data) % 4)
    name = operation.encode() + b"\0"
    data += struct.pack("<I", len(name)) + name
    data += b"\0" * (-len(data) % 4) + struct.pack("<I", 0)
    if body:
        data += b"\0" * (-(len(data) + 12) % 8) + body
    return header(0, len(data)) + data


def read_exactly(connection, size):
    data = b""
    while len(data) < size:
        chunk = connection.recv(size - len(data))
        if not chunk:
            raise EOFError(f"closed after {len(data)} of {size} octets")
        data += chunk
    return data


def reply(connection):
    """(status, exception's repository id or None, the rest) of the next Reply."""
    start = read_exactly(connection, 12)
    if start[7] != 1:
        raise EOFError(f"message of kind {start[7]} instead of a reply")
    little = start[6] & 1 == 1
    size, = struct.unpack("<I" if little else ">I", start[8:12])
    data = start + read_exactly(connection, size)
    reader = Reader(data, little, 12)
    reader.ulong()
    status = reader.ulong()
    for _ in range(reader.ulong()):
        reader.ulong()
        reader.octets()
    if reader.position < len(data):
        reader.position += -reader.position % 8
    name = reader.string() if status in (1, 2) else None
    return status, name, data[reader.position:]
