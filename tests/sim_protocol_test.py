#!/usr/bin/env python3
"""Bad input to the simulator ends that connection with a logged reason, never the server; and its
version."""
import os
import socket
import struct
import subprocess
import sys

version = subprocess.run([sys.argv[1], "--version"], stdout=subprocess.PIPE, text=True, check=True)
assert version.stdout.startswith("vexa-usb-sim 0."), version.stdout

# Where it listens.
for bad, status, reason in (("", 2, "is no address"), ("lab", 2, "is no address"),
                            ("10.0.0.1/8", 2, "is no address"), ("192.0.2.1", 1, "'ip address'")):
    ended = subprocess.run([sys.argv[1], "--listen", bad, "--port", "0"], text=True, timeout=20,
                           stderr=subprocess.PIPE)
    assert ended.returncode == status and reason in ended.stderr, (bad, ended)
hasIpv6 = os.path.exists("/proc/net/if_inet6")
for own in ("127.1.2.3", "::1", "::ffff:127.0.0.1")[:3 if hasIpv6 else 1]:
    with subprocess.Popen([sys.argv[1], "--listen", own, "--port", "0"], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as simulator:
        said = simulator.stdout.readline().removeprefix("listening on ").strip()
        socket.create_connection((own, int(said.rpartition(":")[2])), timeout=10).close()
        simulator.terminate()
        assert said.rpartition(":")[0].strip("[]") == own and not simulator.stderr.read(), said

simulator = subprocess.Popen([sys.argv[1], "--port", "0"], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True)
port = int(simulator.stdout.readline().rsplit(":", 1)[1])


def connect():
    client = socket.create_connection(("127.0.0.1", port), timeout=10)
    client.settimeout(10)
    return client


def read(client, size):
    data = b""
    while len(data) < size:
        piece = client.recv(size - len(data))
        if not piece:
            break
        data += piece
    return data


def imported():
    client = connect()
    client.sendall(struct.pack(">HHI32s", 0x0111, 0x8003, 0, b"1-1"))
    reply = read(client, 320)
    assert reply[:8] == struct.pack(">HHI", 0x0111, 3, 0), reply[:8]
    return client


def submit(direction, endpoint, length, packets=0, setup=bytes(8), command=1):
    return struct.pack(">10I8s", command, 7, 0x10002, direction, endpoint, 0, length, 0, packets,
                       0, setup)


def ends(client, data, reason):
    client.sendall(data)
    assert read(client, 1) == b"", reason
    line = simulator.stderr.readline()
    assert reason in line, (reason, line)


ends(connect(), b"GET / HTTP/1.1\r\n\r\n", "version")
ends(connect(), struct.pack(">HHI", 0x0111, 0x8001, 0), "unknown operation")
for bad, reason in (
        (submit(1, 2, 0xFFFFFFFF), "transfer of"),
        (submit(0, 3, 0x7FFFFFFF), "transfer of"),
        (submit(1, 16, 10), "no endpoint"),
        (submit(1, 2, 512, packets=3), "isochronous"),
        (submit(1, 0, 100, setup=bytes.fromhex("8006000100001200")), "longer"),
        (submit(1, 0, 18, setup=bytes.fromhex("0009000000001200")), "direction"),
        (submit(0, 0, 0, command=99), "unknown command")):
    ends(imported(), bad, reason)

# Cut off in the middle of everything.
for part in (b"\x01", struct.pack(">HHI", 0x0111, 0x8003, 0) + b"1-1"):
    client = connect()
    client.sendall(part)
    client.close()
client = imported()
client.sendall(submit(0, 3, 100)[:-1])
client.close()

# A device that is taken, one that there is not, and an unlink: of a waiting transfer, of no one.
client = imported()
other = connect()
other.sendall(struct.pack(">HHI32s", 0x0111, 0x8003, 0, b"1-1"))
assert read(other, 8) == struct.pack(">HHI", 0x0111, 3, 2)
other.sendall(struct.pack(">HHI32s", 0x0111, 0x8003, 0, b"5-5"))
assert read(other, 8) == struct.pack(">HHI", 0x0111, 3, 4)
client.sendall(submit(1, 3, 10))
for status in (-104, 0):
    client.sendall(struct.pack(">6I24x", 2, 8, 0x10002, 0, 0, 7))
    reply = struct.unpack(">5Ii24x", read(client, 48))
    assert (reply[0], reply[1], reply[5]) == (4, 8, status), reply
client.close()

# The first message unlinks what an earlier connection left.  Later, an unlink that overtakes its
# transfer is answered once that has come.
client = imported()
client.sendall(struct.pack(">6I24x", 2, 8, 0x10002, 0, 0, 6))
assert struct.unpack(">5Ii24x", read(client, 48))[5] == 0
overtaken = submit(1, 3, 10)
client.sendall(overtaken + struct.pack(">6I24x", 2, 9, 0x10002, 0, 0, 8))
client.sendall(overtaken[:4] + struct.pack(">I", 8) + overtaken[8:])
reply = struct.unpack(">5Ii24x", read(client, 48))
assert (reply[0], reply[1], reply[5]) == (4, 9, -104), reply
client.close()

# A device that leaves has its last answer read, whatever the client sends meanwhile; then it is back.
client = imported()
vanish = struct.pack("<QIHH", 0, 0, 0, 0)
client.sendall(submit(0, 0, len(vanish), setup=struct.pack("<BBHHH", 0x40, 8, 0, 0, 16)) + vanish)
client.sendall(bytes(16 << 20))
assert len(read(client, 1 << 20)) == 48
again = imported()
client.close()
other.sendall(struct.pack(">HHI32s", 0x0111, 0x8003, 0, b"1-1"))
assert read(other, 8) == struct.pack(">HHI", 0x0111, 3, 2)  # it is the new client's
again.close()

# A client that asks for much and reads nothing gets no more than the simulator can hold.
client = imported()
for _ in range(200):
    client.sendall(submit(1, 2, 8 << 20))
connect().close()
with open(f"/proc/{simulator.pid}/status") as status:
    memory = int(next(line for line in status if line.startswith("VmRSS")).split()[1])
assert memory < 200_000, memory
client.close()

# After all that it serves as before.
client = connect()
client.sendall(struct.pack(">HHI", 0x0111, 0x8005, 0))
assert read(client, 12)[:8] == struct.pack(">HHI", 0x0111, 5, 0)
assert simulator.poll() is None
simulator.terminate()
assert simulator.wait(10) == 0
print("ok")
