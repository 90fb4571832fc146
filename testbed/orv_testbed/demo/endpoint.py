# SPDX-License-Identifier: Apache-2.0
"""The cloud's side of the demo: a TLS endpoint on loopback with a certificate of its own certificate authority."""

import os
import socket
import ssl
import subprocess
import threading


def make_certificates(folder):
    """Makes ca.crt, and endpoint.crt with its key for 127.0.0.1."""

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, stderr=subprocess.DEVNULL)

    with open(os.path.join(folder, "endpoint.ext"), "w", encoding="ascii") as file:
        file.write("subjectAltName=IP:127.0.0.1\n")
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl("req", "-x509", *key, "-keyout", "ca.key", "-out", "ca.crt", "-days", "2", "-subj", "/CN=Demo CA")
    openssl("req", *key, "-keyout", "endpoint.key", "-out", "endpoint.csr", "-subj", "/CN=demo endpoint")
    openssl(
        "x509",
        "-req",
        "-in",
        "endpoint.csr",
        "-CA",
        "ca.crt",
        "-CAkey",
        "ca.key",
        "-CAcreateserial",
        "-extfile",
        "endpoint.ext",
        "-days",
        "2",
        "-out",
        "endpoint.crt",
    )


class Endpoint:
    """Notes the source address of each completed handshake."""

    def __init__(self, folder, tell):
        self.handshakes = []
        self.tell = tell
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(os.path.join(folder, "endpoint.crt"), os.path.join(folder, "endpoint.key"))
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection, (address, _) = self.listener.accept()
            connection.settimeout(5)
            try:
                with self.context.wrap_socket(connection, server_side=True):
                    self.handshakes.append(address)
                    self.tell(f"TLS handshake completed with {address}")
            except OSError as error:
                self.tell(f"no TLS handshake with {address}: {error}")
