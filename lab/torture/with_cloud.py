# SPDX-License-Identifier: Apache-2.0
"""with_cloud PROGRAM [ARGUMENT...]

Runs the program beside a TLS endpoint on 127.0.0.1 with the certificate "good" of ORV_ENDPOINT_DIR, and tells it the port
as ORV_CLOUD_PORT. Ends with its status.
"""
from __future__ import annotations

import os
import pathlib
import subprocess
import sys

from orv_testbed.endpoint import Endpoint, context


def main() -> int:
    certificate = context(pathlib.Path(os.environ["ORV_ENDPOINT_DIR"]) / "good.pem")
    reply = b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
    endpoint = Endpoint("127.0.0.1", 0, lambda address: certificate, lambda caller, what: None, reply)
    endpoint.start()
    environment = {**os.environ, "ORV_CLOUD_PORT": str(endpoint.port)}
    return subprocess.run(sys.argv[1:], env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
