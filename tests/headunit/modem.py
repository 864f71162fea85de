#!/usr/bin/env python3
"""A cellular modem for ofonod's phonesim plugin (27.007 AT on a TCP port) that plays
the network and the emergency centre. Usage: modem.py [ready|off|silent|pin|nosim|limited]
[ECALLCTL]. Prints "port N", "ecall port M", then "at CMD" per command ("ecall at CMD" on
the eCall port). Stdin lines, each acknowledged "ok WORD": state S, answer, hangup,
ring NUMBER, drop, msdrequest, ecalloff. On the eCall port a hex MSD is decoded by
ECALLCTL ("msd| FIELD: VALUE" lines) and AT+CECALL=<3|2|0> places the call (see the README).
"""
import re
import selectors
import socket
import subprocess
import sys

# 27.007 +CLCC call states
ACTIVE, DIALING, ALERTING, INCOMING = 0, 2, 3, 4

FIXED = {
    "AT+SIMSTATE?": "+SIMSTATE: 1",
    "AT+CPIN?": "+CPIN: READY",
    "AT+CREG=?": "+CREG: (0-2)",
    "AT+CREG?": '+CREG: 2,1,"00C3","0001"',
    "AT+CGREG?": '+CGREG: 2,1,"00C3","0001"',
    "AT+COPS=?": '+COPS: (2,"Emergency Net","EmNet","00101")',
    "AT+COPS?": '+COPS: 0,2,"00101"',
    "AT+CSQ": "+CSQ: 24,99",
    "AT+CIMI": "001010123456789",
    "AT+CGSN": "350000000000001",
    "AT+CGMI": "ecall",
    "AT+CGMM": "modem emulator",
    "AT+CGMR": "1",
    "AT+CFUN?": "+CFUN: 1",
}
# What a state answers otherwise; an error is the whole answer.
STATES = {"ready": {}, "off": {}, "silent": {}, "pin": {"AT+CPIN?": "+CPIN: SIM PIN"},
          "nosim": {"AT+SIMSTATE?": "+SIMSTATE: 0", "AT+CPIN?": "+CME ERROR: 10"},
          "limited": {"AT+CREG?": "+CREG: 2,0", "AT+CGREG?": "+CGREG: 2,0", "AT+COPS?": "+COPS: 0"}}


class Modem:
    def __init__(self, state, ecallctl):
        self.calls = {}  # index -> [direction, state, number]
        self.conn = None
        self.state = state
        self.held = []  # commands taken while silent
        self.ecallctl = ecallctl
        self.ecall = None  # the eCall port's connection

    def send(self, text):
        if self.conn:
            self.conn.sendall(b"\r\n" + text.encode() + b"\r\n")

    def clcc(self):
        return [f'+CLCC: {i},{d},{s},0,0,"{n}",129' for i, (d, s, n) in sorted(self.calls.items())]

    def command(self, cmd, held=False):
        if not held:
            print("at " + cmd)
        if self.state == "silent":
            self.held.append(cmd)
            return
        up = cmd.upper()
        lines = []
        if up.startswith("ATD"):
            self.calls[1] = [0, DIALING, cmd[3:].rstrip(";")]
        elif up == "AT+CLCC":
            lines = self.clcc()
            # The far end starts ringing once the dialling has been seen.
            for call in self.calls.values():
                if call[1] == DIALING:
                    call[1] = ALERTING
        elif up in ("ATH", "AT+CHUP") or up.startswith("AT+CHLD=1"):
            self.calls.clear()
        elif up == "ATA":
            for call in self.calls.values():
                if call[1] == INCOMING:
                    call[1] = ACTIVE
        elif up in STATES[self.state] or up in FIXED:
            lines = [STATES[self.state].get(up, FIXED.get(up))]
        for line in lines:
            self.send(line)
        if not lines or "ERROR" not in lines[-1]:
            self.send("OK")

    def ecall_command(self, cmd):
        print("ecall at " + cmd)
        answer = "OK"
        msd = re.search(r"[0-9A-Fa-f]{40,}", cmd)
        placed = re.fullmatch(r"AT\+CECALL=([023])", cmd.upper())
        if msd:
            decoded = subprocess.run([self.ecallctl, "msd", "--decode", msd.group(0)], capture_output=True,
                                     text=True, timeout=20)
            print("msd " + msd.group(0))
            for line in (decoded.stdout + decoded.stderr).splitlines():
                print("msd| " + line)
            answer = "OK" if decoded.returncode == 0 else "+CME ERROR: 50"
        elif placed:
            # A test call goes to the test number the modem's SIM holds.
            self.calls[1] = [0, DIALING, "5550100" if placed.group(1) == "0" else "112"]
        elif cmd.upper().startswith("AT+CECALL"):
            answer = "ERROR"
        self.ecall.sendall(("\r\n" + answer + "\r\n").encode())
        if placed:
            self.send("RING")

    def network(self, words):
        if words[0] == "state" and len(words) > 1 and words[1] in STATES:
            self.state = words[1]
            held, self.held = self.held, []
            for cmd in held:
                self.command(cmd, held=True)
        elif words[0] == "answer":
            for call in self.calls.values():
                call[1] = ACTIVE
        elif words[0] == "hangup":
            self.calls.clear()
            self.send("NO CARRIER")
        elif words[0] == "ring":
            number = words[1] if len(words) > 1 else "911"
            self.calls[1] = [1, INCOMING, number]
            self.send("RING")
            self.send(f'+CLIP: "{number}",129')
        elif words[0] == "msdrequest" and self.ecall:
            self.ecall.sendall(b"\r\n+MSDREQ\r\n")
        print("ok " + words[0])

def lines(buf, chunk, take):
    """Takes each whole line of buf + chunk; returns what is left."""
    buf += chunk
    while True:
        end = min((i for i in (buf.find(b"\r"), buf.find(b"\n")) if i >= 0), default=-1)
        if end < 0:
            return buf
        line, buf = buf[:end].decode(errors="replace").strip(), buf[end + 1:]
        if line:
            take(line)


def main():
    sys.stdout.reconfigure(line_buffering=True)
    modem = Modem(sys.argv[1] if len(sys.argv) > 1 else "ready", sys.argv[2] if len(sys.argv) > 2 else "ecallctl")
    sel = selectors.DefaultSelector()
    buffers = {}

    def bound(name):
        server = socket.socket()
        server.bind(("127.0.0.1", 0))
        print(f"{name} {server.getsockname()[1]}")
        return server

    def drop(port):  # port: "conn" (the AT port) or "ecall"
        if getattr(modem, port):
            sel.unregister(getattr(modem, port))
            getattr(modem, port).close()
            setattr(modem, port, None)

    def accept(server, port):
        drop(port)
        setattr(modem, port, server.accept()[0])
        buffers[port] = b""
        if port == "conn":  # a modem powered again starts afresh
            modem.calls, modem.held = {}, []
        sel.register(getattr(modem, port), selectors.EVENT_READ, port)

    def read(port, take):
        try:  # answering too: ofonod may end without reading all it was sent
            chunk = getattr(modem, port).recv(4096)
            if chunk:
                buffers[port] = lines(buffers[port], chunk, take)
        except OSError:
            chunk = b""
        if not chunk:
            drop(port)

    # Bound but not listening, the AT port refuses connections.
    server, ecall_server = bound("port"), bound("ecall port")
    ecall_server.listen()
    sel.register(sys.stdin, selectors.EVENT_READ, "stdin")
    sel.register(ecall_server, selectors.EVENT_READ, "ecall server")

    def listen():
        if modem.state != "off" and server not in sel.get_map():
            server.listen()
            sel.register(server, selectors.EVENT_READ, "server")

    listen()
    while True:
        for key, _ in sel.select():
            if key.data == "server":
                accept(server, "conn")
            elif key.data == "ecall server":
                accept(ecall_server, "ecall")
            elif key.data in ("conn", "ecall"):
                read(key.data, modem.command if key.data == "conn" else modem.ecall_command)
            else:
                line = sys.stdin.readline()
                if not line:
                    return
                words = line.split()
                if words[:1] == ["drop"]:
                    drop("conn")
                if words[:1] == ["ecalloff"]:
                    drop("ecall")
                    sel.unregister(ecall_server)
                    ecall_server.close()
                if words:
                    modem.network(words)
                    listen()


if __name__ == "__main__":
    main()
