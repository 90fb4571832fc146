# SPDX-License-Identifier: Apache-2.0
"""Certificates for the testbed's TLS endpoints, made by openssl."""
from __future__ import annotations

import functools
import pathlib
import subprocess

KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
DAYS = "30"


def openssl(*words: str | pathlib.Path, told: str | None = None) -> str:
    done = subprocess.run(["openssl", *words], input=told, text=True, capture_output=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"openssl {words[0]}: {done.stderr}")
    return done.stdout


class Authority:
    """A certificate authority of its own: NAME.pem and NAME.key in `folder`.

    With `alternative_names` its certificate serves an endpoint by itself, too.
    """

    def __init__(self, folder: pathlib.Path, name: str, common_name: str, alternative_names: str = "") -> None:
        self.folder = folder
        self.certificate = folder / f"{name}.pem"
        subject = f"/CN={common_name}"
        files = ("-keyout", self.certificate.with_suffix(".key"), "-out", self.certificate)
        names = ("-addext", f"subjectAltName={alternative_names}") if alternative_names else ()
        openssl("req", "-x509", *KEY, "-days", DAYS, "-subj", subject, *names, *files)

    def certify(self, name: str, common_name: str, alternative_names: str) -> pathlib.Path:
        """Makes NAME.pem and NAME.key; returns the former."""
        certificate = self.folder / f"{name}.pem"
        request, extensions = certificate.with_suffix(".csr"), certificate.with_suffix(".ext")
        extensions.write_text(f"subjectAltName={alternative_names}\n", encoding="ascii")
        openssl("req", *KEY, "-subj", f"/CN={common_name}", "-keyout", certificate.with_suffix(".key"), "-out", request)
        signer = ("-CA", self.certificate, "-CAkey", self.certificate.with_suffix(".key"), "-CAcreateserial")
        openssl("x509", "-req", "-in", request, *signer, "-days", DAYS, "-extfile", extensions, "-out", certificate)
        return certificate


def hash_of(certificate: pathlib.Path) -> str:
    """By which a folder of certificates names it."""
    return _hash_of(certificate.read_text(encoding="ascii"))


@functools.cache
def _hash_of(certificate: str) -> str:
    return openssl("x509", "-noout", "-subject_hash", told=certificate).strip()
