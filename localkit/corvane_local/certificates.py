"""The service's own certificate authority, made at first start, and its certificate for this machine."""

import datetime as dt
import ipaddress
import os
from pathlib import Path

from cryptography import x509
from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

_AUTHORITY_LIFE = dt.timedelta(days=3650)
_SERVER_LIFE = dt.timedelta(days=90)
_RENEW_BEFORE = dt.timedelta(days=7)


def ensure_certificates(state: Path) -> tuple[Path, Path, Path]:
    """Makes what is missing, damaged or about to expire, and what a kill has left without its other half.

    Returns:
        The authority's certificate (for clients, through SSL_CERT_FILE), the server's certificate and its key.
    """
    authority, authority_key = state / "ca.pem", state / "ca.key"
    server, server_key = state / "server.pem", state / "server.key"
    if not _is_usable(authority, authority_key, authority):
        _make_authority(authority, authority_key)
    if not _is_usable(server, server_key, authority):
        _make_server(authority, authority_key, server, server_key)
    return authority, server, server_key


def write_private(path: Path, content: bytes) -> None:
    """Writes a file that only its owner can read, complete or not at all."""
    temporary = path.with_name(path.name + ".new")
    temporary.unlink(missing_ok=True)
    with os.fdopen(os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as file:
        file.write(content)
        file.flush()
        os.fsync(file.fileno())
    temporary.replace(path)


def _is_usable(certificate: Path, key_file: Path, authority: Path) -> bool:
    """Whether the certificate lasts, the authority has signed it, and the key is its own."""
    try:
        signed, issuer = (x509.load_pem_x509_certificate(path.read_bytes()) for path in (certificate, authority))
        key = serialization.load_pem_private_key(key_file.read_bytes(), password=None)
        signed.verify_directly_issued_by(issuer)
    except (FileNotFoundError, ValueError, TypeError, InvalidSignature):
        return False
    lasts = signed.not_valid_after_utc - _RENEW_BEFORE > dt.datetime.now(dt.UTC)
    return lasts and key.public_key() == signed.public_key()


def _builder(
    subject: str, issuer: x509.Name | None, key: ec.EllipticCurvePrivateKey, life: dt.timedelta
) -> x509.CertificateBuilder:
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, subject)])
    now = dt.datetime.now(dt.UTC)
    return (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(issuer or name)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - dt.timedelta(hours=1))  # a clock may lag a little
        .not_valid_after(now + life)
        .add_extension(x509.SubjectKeyIdentifier.from_public_key(key.public_key()), critical=False)
    )


def _key_pem(key: ec.EllipticCurvePrivateKey) -> bytes:
    return key.private_bytes(
        serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
    )


def _make_authority(certificate: Path, key_file: Path) -> None:
    key = ec.generate_private_key(ec.SECP256R1())
    usage = x509.KeyUsage(
        digital_signature=True, key_cert_sign=True, crl_sign=True, content_commitment=False, key_encipherment=False,
        data_encipherment=False, key_agreement=False, encipher_only=False, decipher_only=False,
    )  # fmt: skip
    signed = (
        _builder("Corvane local certificate authority", None, key, _AUTHORITY_LIFE)
        .add_extension(x509.BasicConstraints(ca=True, path_length=0), critical=True)
        .add_extension(usage, critical=True)
        .sign(key, hashes.SHA256())
    )
    write_private(key_file, _key_pem(key))
    write_private(certificate, signed.public_bytes(serialization.Encoding.PEM))


def _make_server(authority: Path, authority_key: Path, certificate: Path, key_file: Path) -> None:
    issuer = x509.load_pem_x509_certificate(authority.read_bytes())
    issuer_key = serialization.load_pem_private_key(authority_key.read_bytes(), password=None)
    assert isinstance(issuer_key, ec.EllipticCurvePrivateKey)
    key = ec.generate_private_key(ec.SECP256R1())
    addresses = [x509.IPAddress(ipaddress.ip_address(a)) for a in ("127.0.0.1", "::1")]
    signed = (
        _builder("localhost", issuer.subject, key, _SERVER_LIFE)
        .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
        .add_extension(x509.SubjectAlternativeName([x509.DNSName("localhost"), *addresses]), critical=False)
        .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), critical=False)
        .add_extension(x509.AuthorityKeyIdentifier.from_issuer_public_key(issuer_key.public_key()), critical=False)
        .sign(issuer_key, hashes.SHA256())
    )
    write_private(key_file, _key_pem(key))
    write_private(certificate, signed.public_bytes(serialization.Encoding.PEM))
