# SPDX-License-Identifier: Apache-2.0
"""The processes that a demo has started."""

import subprocess


def end_all(processes):
    """Ends those that still run, the latest first, and waits until they are gone."""
    for process in reversed(processes):
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(3)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
