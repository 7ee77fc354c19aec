#!/usr/bin/env python3
"""A hand-driven push for tests: what a git client sends, with control over timing and bytes.

raw_push.py PORT PATH OLD NEW REF PACKFILE [--cut N] [--wait-for FILE]
Reads the advertisement, prints "advertised", optionally waits until FILE exists, then sends
the command (with report-status side-band-64k) and the first N bytes of the pack (all by
default), and prints everything the server answers.
"""
import os
import socket
import sys
import time


def pkt(data):
    return ("%04x" % (len(data) + 4)).encode() + data


def main():
    args = sys.argv[1:]
    port, path, old, new, ref, packfile = args[:6]
    cut = None
    wait_for = None
    rest = args[6:]
    while rest:
        if rest[0] == "--cut":
            cut = int(rest[1])
        elif rest[0] == "--wait-for":
            wait_for = rest[1]
        rest = rest[2:]

    s = socket.create_connection(("127.0.0.1", int(port)))
    s.sendall(pkt(b"git-receive-pack " + path.encode() + b"\0host=localhost\0"))
    advertisement = b""
    while not advertisement.endswith(b"0000"):
        chunk = s.recv(65536)
        if not chunk:
            break
        advertisement += chunk
    print("advertised", flush=True)
    if wait_for:
        while not os.path.exists(wait_for):
            time.sleep(0.01)
    command = ("%s %s %s" % (old, new, ref)).encode() + b"\0report-status side-band-64k"
    pack = open(packfile, "rb").read()
    if cut is not None:
        pack = pack[:cut]
    s.sendall(pkt(command) + b"0000" + pack)
    if cut is not None:
        s.shutdown(socket.SHUT_WR)
    answer = b""
    while True:
        try:
            chunk = s.recv(65536)
        except ConnectionResetError:
            break
        if not chunk:
            break
        answer += chunk
    sys.stdout.write(answer.decode("utf-8", "replace"))


if __name__ == "__main__":
    main()
