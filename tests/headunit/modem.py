#!/usr/bin/env python3
"""A cellular modem for ofonod's phonesim plugin: speaks 3GPP TS 27.007 AT
commands on a TCP port and plays the network and the emergency centre.

Usage: modem.py [STATE]: ready (the default), off (its port refuses
connections; first state only), silent (answers only once it leaves the
state), pin, nosim or limited (not registered). It prints "port N" once it
has its port, then one line "at CMD" per command the modem receives. Lines
on standard input drive it and the network, each acknowledged "ok WORD":
  state STATE    the modem goes into STATE
  answer         the called party answers (the call becomes active)
  hangup         the far end hangs up (NO CARRIER)
  ring NUMBER    an incoming call from NUMBER (RING, +CLIP)
  drop           the modem's line to ofonod breaks
"""
import selectors
import socket
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
    def __init__(self, state):
        self.calls = {}  # index -> [direction, state, number]
        self.conn = None
        self.buf = b""
        self.state = state
        self.held = []  # commands taken while silent

    def send(self, text):
        if self.conn:
            self.conn.sendall(b"\r\n" + text.encode() + b"\r\n")

    def clcc(self):
        return [f'+CLCC: {i},{d},{s},0,0,"{n}",129' for i, (d, s, n) in sorted(self.calls.items())]

    def command(self, cmd, held=False):
        if not held:
            print("at " + cmd, flush=True)
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
        print("ok " + words[0], flush=True)

    def data(self, chunk):
        self.buf += chunk
        while True:
            end = min((i for i in (self.buf.find(b"\r"), self.buf.find(b"\n")) if i >= 0), default=-1)
            if end < 0:
                return
            line, self.buf = self.buf[:end].decode(errors="replace").strip(), self.buf[end + 1:]
            if line:
                self.command(line)


def main():
    modem = Modem(sys.argv[1] if len(sys.argv) > 1 else "ready")
    # Bound but not listening, the port refuses connections.
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    sel = selectors.DefaultSelector()
    sel.register(sys.stdin, selectors.EVENT_READ, "stdin")

    def listen():
        if modem.state != "off" and server not in sel.get_map():
            server.listen()
            sel.register(server, selectors.EVENT_READ, "accept")

    listen()
    print(f"port {server.getsockname()[1]}", flush=True)
    while True:
        for key, _ in sel.select():
            if key.data == "accept":
                if modem.conn:
                    sel.unregister(modem.conn)
                    modem.conn.close()
                modem.conn, _ = server.accept()
                # A modem powered again starts afresh.
                modem.buf, modem.calls, modem.held = b"", {}, []
                sel.register(modem.conn, selectors.EVENT_READ, "modem")
            elif key.data == "stdin":
                line = sys.stdin.readline()
                if not line:
                    return
                words = line.split()
                if words and words[0] == "drop" and modem.conn:
                    sel.unregister(modem.conn)
                    modem.conn.close()
                    modem.conn = None
                if words:
                    modem.network(words)
                    listen()
            else:
                try:
                    chunk = modem.conn.recv(4096)
                    modem.data(chunk)
                except OSError:  # ofonod ended without reading all it was sent
                    chunk = b""
                if not chunk:
                    sel.unregister(modem.conn)
                    modem.conn.close()
                    modem.conn = None


if __name__ == "__main__":
    main()
