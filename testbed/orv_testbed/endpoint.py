#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""endpoint.py FOLDER ADDRESS ETHERNET-PREFIX CELLULAR-PREFIX

The cloud's HTTPS endpoint. Writes one line for every connection: when it was taken, side, peer and what came of it, so
that a test can tell from the cloud's side whether a TLS handshake took place. (The client's end of a handshake comes
first: its last message ends it, and that one has yet to arrive.) How it answers each side stands in FOLDER/answer-eth and
FOLDER/answer-cell: ok, silent (accepts and says nothing) or wrong-certificate.
"""
import datetime
import pathlib
import socket
import ssl
import sys
import threading

folder, (address, eth_prefix, cell_prefix) = pathlib.Path(sys.argv[1]), sys.argv[2:5]


def context(certificate):
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(folder / "tls" / (certificate + ".pem"), folder / "tls" / (certificate + ".key"))
    return made


contexts = {"ok": context("server"), "wrong-certificate": context("wrong")}


def serve(connection, peer, taken):
    def say(outcome):
        print(taken.strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3] + "Z", side, f"{peer[0]}:{peer[1]}", outcome, flush=True)

    side = "eth" if peer[0].startswith(eth_prefix) else "cell" if peer[0].startswith(cell_prefix) else "other"
    answer = (folder / f"answer-{side}").read_text().strip() if side != "other" else "ok"
    connection.settimeout(60)
    try:
        if answer == "silent":
            say("silent")
            while connection.recv(4096):
                pass
            return
        with contexts[answer].wrap_socket(connection, server_side=True) as tls:
            say("handshake")
            if tls.recv(4096):
                tls.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\nConnection: close\r\n\r\nok\n")
    except OSError as error:
        say(f"failed: {error}")
    finally:
        connection.close()


listener = socket.create_server((address, 443), backlog=64)
while True:
    accepted, sender = listener.accept()
    now = datetime.datetime.now(datetime.timezone.utc)
    threading.Thread(target=serve, args=(accepted, sender, now), daemon=True).start()
