"""A phone over WebSocket: lists the watch's sensors, asks for the steps and the heart rate, and prints what comes.

Usage: PARVANE_TOKEN=... python3 websocket_phone.py ws://HOST:PORT/link
       PARVANE_TOKEN=... python3 websocket_phone.py wss://HOST:PORT/link FINGERPRINT

The fingerprint is that of `parvane-gateway status`; without one, an authority must know the certificate. Needs python3-websockets.
"""
import asyncio
import hashlib
import os
import ssl
import struct
import sys

import websockets

NAMES = {1: "activity", 2: "steps", 3: "heart rate", 4: "worn"}
STOP, LIST, START = bytes.fromhex("14000001"), bytes.fromhex("01000000"), bytes.fromhex("1300000100")
STEPS, HEART = bytes.fromhex("12000002"), bytes.fromhex("12000003")


def context(fingerprint):
    """How the gateway shows who it is: by a fingerprint, which check() compares, or by an authority."""
    tls = ssl.create_default_context()
    if fingerprint:
        tls.check_hostname, tls.verify_mode = False, ssl.CERT_NONE
    return tls


def check(link, fingerprint):
    certificate = link.transport.get_extra_info("ssl_object").getpeercert(binary_form=True)
    if hashlib.sha256(certificate).hexdigest() != fingerprint.replace(":", "").lower():
        raise ssl.SSLError("the certificate is not the watch's")


def show(packet):
    if len(packet) == 25:
        print("sensor", NAMES.get(packet[1], packet[1]), flush=True)
    elif len(packet) == 18:
        print(NAMES[packet[3]], *struct.unpack(">f", packet[13:17]), flush=True)


async def phone(address, fingerprint=None):
    options = {"ssl": context(fingerprint)} if address.startswith("wss:") else {}
    async with websockets.connect(address, subprotocols=["parvane.link.v1"],
                                  extra_headers={"Authorization": "Bearer " + os.environ["PARVANE_TOKEN"]}, **options) as link:
        if fingerprint:
            check(link, fingerprint)
        for request in STOP, LIST, START, STEPS, HEART:
            await link.send(request)
        async for packet in link:
            show(packet)


try:
    asyncio.run(phone(*sys.argv[1:]))
except websockets.ConnectionClosed as closed:
    sys.exit(f"closed: {closed.code} {closed.reason}")
except KeyboardInterrupt:
    pass
