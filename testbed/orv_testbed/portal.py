#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""portal.py CERTIFICATES NAME

A captive portal: sends whoever speaks plain HTTP to https://NAME/, and answers TLS on the cloud's ports with a certificate
of its own, by an authority that the gateway does not know. Writes one line for every connection: when it was taken, port,
peer and what came of it.
"""
import datetime
import pathlib
import socket
import ssl
import sys
import threading

PLAIN, SECURE = 80, (443, 8883)
folder, name = pathlib.Path(sys.argv[1]), sys.argv[2]
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(folder / "portal.pem", folder / "portal.key")


def answer(connection):
    if connection.recv(4096):
        connection.sendall(
            f"HTTP/1.1 302 Found\r\nLocation: https://{name}/\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n".encode()
        )


def serve(connection, port, peer):
    def say(outcome):
        print(taken.strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3] + "Z", port, f"{peer[0]}:{peer[1]}", outcome, flush=True)

    taken = datetime.datetime.now(datetime.timezone.utc)
    connection.settimeout(60)
    try:
        if port == PLAIN:
            say("plain")
            answer(connection)
        else:
            with context.wrap_socket(connection, server_side=True) as tls:
                say("handshake")
                answer(tls)
    except OSError as error:
        say(f"failed: {error}")
    finally:
        connection.close()


def listen(port):
    listener = socket.create_server(("", port), backlog=64)
    while True:
        accepted, sender = listener.accept()
        threading.Thread(target=serve, args=(accepted, port, sender), daemon=True).start()


for secure in SECURE:
    threading.Thread(target=listen, args=(secure,), daemon=True).start()
listen(PLAIN)
