"""The laboratory's certificate authority, and a certificate for each product."""
import os
import subprocess

from .errors import LabError

_DAYS = "3650"
_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


class Authority:
    """An authority in `folder`, for one run. Writes ca.pem, cert.pem and key.pem of products."""

    def __init__(self, folder):
        os.makedirs(folder, mode=0o700, exist_ok=True)
        self._certificate = os.path.join(folder, "ca.pem")
        self._key = os.path.join(folder, "ca.key")
        _openssl("req", "-x509", *_KEY, "-days", _DAYS, "-subj", "/CN=Sonarix laboratory",
                 "-addext", "keyUsage=critical,keyCertSign,cRLSign",
                 "-keyout", self._key, "-out", self._certificate)

    def issue(self, guid, folder):
        """Writes a certificate for client and server use. Its common and alternative names are the guid."""
        os.makedirs(folder, mode=0o700, exist_ok=True)
        _openssl("req", "-x509", *_KEY, "-days", _DAYS, "-subj", f"/CN={guid}",
                 "-CA", self._certificate, "-CAkey", self._key,
                 "-addext", f"subjectAltName=DNS:{guid}",
                 "-addext", "basicConstraints=critical,CA:FALSE",
                 "-addext", "keyUsage=critical,digitalSignature",
                 "-addext", "extendedKeyUsage=serverAuth,clientAuth",
                 "-keyout", os.path.join(folder, "key.pem"), "-out", os.path.join(folder, "cert.pem"))
        with open(self._certificate, "rb") as source, open(os.path.join(folder, "ca.pem"), "wb") as target:
            target.write(source.read())


def _openssl(*arguments):
    result = subprocess.run(["openssl", *arguments], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise LabError("openssl failed: " + result.stderr.strip().splitlines()[-1])
