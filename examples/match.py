#!/usr/bin/env python3
"""Asks the plug-in daemon which plug-ins serve an extension point: a whole client, written from doc/wire.md alone.

Usage: match.py SOCKET EXTENSION-POINT      (SOCKET: the service's name in the daemon's runtime directory)
"""
import socket
import struct
import sys


def text(string):
    data = string.encode()
    return struct.pack('<I', len(data)) + data


def encode(value):
    if isinstance(value, bool):
        return struct.pack('<BB', 1, value)
    if isinstance(value, int):
        return struct.pack('<BQ', 3, value) if value >= 0 else struct.pack('<Bq', 2, value)
    if isinstance(value, str):
        return b'\x05' + text(value)
    if isinstance(value, list):
        tag, body = 8, b''.join(encode(element) for element in value)
    else:
        tag, body = 9, b''.join(text(key) + encode(entry) for key, entry in sorted(value.items()))
    return struct.pack('<BII', tag, 4 + len(body), len(value)) + body


FIXED = {1: '<?', 2: '<q', 3: '<Q', 4: '<d', 7: '<d', 10: '16s'}


def decode(data, at=0):
    """The value at an offset, and the offset behind it."""
    tag, at = data[at], at + 1
    if tag in FIXED:
        return struct.unpack_from(FIXED[tag], data, at)[0], at + struct.calcsize(FIXED[tag])
    if tag == 12:  # message form: the value inside
        return decode(data, at)
    size, = struct.unpack_from('<I', data, at)
    at, end = at + 4, at + 4 + size
    if tag in (5, 6):
        return (data[at:end].decode() if tag == 5 else data[at:end]), end
    count, = struct.unpack_from('<I', data, at)
    at += 4
    result = [] if tag == 8 else {}
    for _ in range(count):
        if tag == 9:
            length, = struct.unpack_from('<I', data, at)
            key, at = data[at + 4:at + 4 + length].decode(), at + 4 + length
            result[key], at = decode(data, at)
        else:
            element, at = decode(data, at)
            result.append(element)
    return result, end


class Connection:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        kind, _, body = self.receive()
        assert kind == 1, 'the service speaks first'
        self.send(2, 0, body[4:20])  # echo the nonce

    def send(self, kind, reply_id, body):
        self.socket.sendall(struct.pack('<IBBHQ', 12 + len(body), kind, 0, 0, reply_id) + body)

    def receive(self):
        length, kind, _, _, reply_id = struct.unpack('<IBBHQ', self.read(16))
        return kind, reply_id, self.read(length - 12)

    def read(self, count):
        data = b''
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                sys.exit('the service closed the connection')
            data += piece
        return data

    def call(self, request):
        self.send(3, 1, encode(request))
        return decode(self.receive()[2])[0]


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    reply = Connection(sys.argv[1]).call({
        'request': 'match', 'version': 3, 'rules': {'KXExtensionPointName': sys.argv[2]}, 'flags': 0})
    if 'errorcode' in reply:
        sys.exit(f"error {reply['errorcode']}: {reply.get('error', 'no message')}")
    for form in reply['matches']:
        print(form['identifier'], form['version'], form['path'])


if __name__ == '__main__':
    main()
