#!/usr/bin/env python3
"""Values check of the on-board test: a plcpoll (the board's, run through a
command prefix such as `nsenter --net=/run/netns/NS qemu-arm -L ROOT`) against a plcsim
started with --static, checked against plcsim's memory as an independent
Modbus client (mbpoll) reads it.

  board_values.py --host H --port P --remote-port R --tags CSV
                  --plcpoll 'CMD ARGS...' [--plcpoll-native PATH] [--soak SECONDS]

1. Fills plcsim's coils and holding registers with a pattern (mbpoll).
2. Reads the registers every tag covers (mbpoll) and computes each tag's
   values from them with the address map below.
3. Runs plcpoll --once --json over the tags on the Modbus link and on the
   remote frame; every value must equal the computed one (also for the
   native plcpoll, when given).
4. Writes each writable kind with plcpoll write (new values at the tag's
   address) and reads the registers back with mbpoll.
5. With --soak, polls for that long with a reply timeout of 150 ms and shows
   the link's statistics (requests, retries, timeouts, round trips). A TCP
   segment lost on the way is sent again after TCP's retransmission timeout
   (200 ms at least), so on a lossy link the driver's retries show there.
Exit status 0 when everything matched, 1 otherwise, 2 on a usage error.
"""
import argparse
import json
import re
import shlex
import subprocess
import sys

STATION = 1
# Where the driver's register kinds live in a Modbus server (plcsim): the
# table, the offset added to the tag's address, and the unit of the address.
#   bits:   kinds 0 (discrete inputs, +0x6000) and 1 (coils, +0xA000); address
#           BYTE.BIT is bit 8*BYTE+BIT.
#   words:  classes 2 (input registers, +0x8000), 3 (holding, +0xA000) and
#           4 (holding, +0). Kinds 2/3/4 one register per value; 6/7/8 one
#           byte per value, byte 2n the low byte of register n; 9/10/11 two
#           and 12/13/14 four registers per value at twice (four times) the
#           address, the lowest register the least significant; 5 one bit of
#           the class-4 registers, bit 16n+b is bit b of register n.
CLASS = {2: ("ir", 0x8000), 3: ("hr", 0xA000), 4: ("hr", 0)}
KIND_CLASS = {2: 2, 3: 3, 4: 4, 6: 2, 7: 3, 8: 4, 9: 2, 10: 3, 11: 4, 12: 2, 13: 3, 14: 4, 5: 4}
WRITABLE = [1, 3, 4, 5, 7, 8, 10, 11, 13, 14]


def fail_usage(message):
    print(f"board_values: {message}", file=sys.stderr)
    sys.exit(2)


def bit_index(address):
    m = re.fullmatch(r"(\d+)\.([0-7])", address)
    if not m:
        fail_usage(f"bit address '{address}' is not BYTE.BIT")
    return 8 * int(m.group(1)) + int(m.group(2))


def value_count(kind, count):
    if kind in (9, 10, 11):
        return (count + 1) // 2
    if kind in (12, 13, 14):
        return (count + 3) // 4
    return count


def layout(kind, address, count):
    """Per value of the tag: the list of (table, register or bit) it is made
    of, least significant part first, and how it is made: 'bit', 'word',
    'byte' (low byte when the index is even) or 'bitN' (bit N of a word)."""
    values = []
    if kind in (0, 1):
        table, offset = ("di", 0x6000) if kind == 0 else ("co", 0xA000)
        first = bit_index(address)
        return [("bit", [(table, offset + first + i)]) for i in range(count)]
    table, offset = CLASS[KIND_CLASS[kind]]
    if kind == 5:
        first = bit_index(address)
        return [(f"bit{(first + i) % 16}", [(table, offset + (first + i) // 16)]) for i in range(count)]
    a = int(address)
    if kind in (2, 3, 4):
        return [("word", [(table, offset + a + i)]) for i in range(count)]
    if kind in (6, 7, 8):
        return [("byte" if (a + i) % 2 == 0 else "highbyte", [(table, offset + (a + i) // 2)]) for i in range(count)]
    per = 2 if kind in (9, 10, 11) else 4
    for e in range(value_count(kind, count)):
        first = offset + per * (a + e)
        values.append(("wide", [(table, first + j) for j in range(per)]))
    return values


def compose(how, parts, memory):
    words = [memory[p] for p in parts]
    if how in ("bit", "word"):
        return words[0]
    if how == "byte":
        return words[0] & 0xFF
    if how == "highbyte":
        return words[0] >> 8
    if how.startswith("bit"):
        return (words[0] >> int(how[3:])) & 1
    return sum(w << (16 * j) for j, w in enumerate(words))


def expected(tag, memory):
    return [compose(how, parts, memory) for how, parts in layout(tag["kind"], tag["address"], tag["count"])]


class Mbpoll:
    """plcsim's memory through mbpoll, a Modbus client independent of the
    driver."""

    TYPES = {"co": "0", "di": "1", "ir": "3:hex", "hr": "4:hex"}

    def __init__(self, host, port):
        self.base = ["mbpoll", "-m", "tcp", "-a", str(STATION), "-p", str(port), "-0"]
        self.host = host

    def read(self, table, first, n):
        out = {}
        while n > 0:
            c = min(n, 100)
            r = subprocess.run(self.base + ["-t", self.TYPES[table], "-r", str(first), "-c", str(c), "-1", self.host],
                               capture_output=True, text=True, timeout=30)
            if r.returncode != 0:
                raise RuntimeError(f"mbpoll read of {table} {first}+{c} failed: {r.stdout[-300:]}{r.stderr[-300:]}")
            for ref, v in re.findall(r"^\[(\d+)\]:\s+(\S+)", r.stdout, re.M):
                out[(table, int(ref))] = int(v, 0)
            first += c
            n -= c
        return out

    def write(self, table, first, values):
        t = "0" if table == "co" else "4"
        r = subprocess.run(self.base + ["-t", t, "-r", str(first), self.host] + [str(v) for v in values],
                           capture_output=True, text=True, timeout=30)
        if r.returncode != 0 or "Written" not in r.stdout:
            raise RuntimeError(f"mbpoll write of {table} {first} failed: {r.stdout[-300:]}{r.stderr[-300:]}")

    def memory_for(self, tags):
        """The registers and bits the tags cover, read in runs of nearby
        addresses."""
        wanted = sorted({p for t in tags for _, parts in layout(t["kind"], t["address"], t["count"]) for p in parts})
        memory = {}
        run_start = None
        for i, (table, reg) in enumerate(wanted):
            if run_start is None:
                run_start = (table, reg)
            nxt = wanted[i + 1] if i + 1 < len(wanted) else None
            if nxt is None or nxt[0] != table or nxt[1] - run_start[1] >= 100:
                memory.update(self.read(table, run_start[1], reg - run_start[1] + 1))
                run_start = None
        missing = [p for t in tags for _, parts in layout(t["kind"], t["address"], t["count"]) for p in parts
                   if p not in memory]
        if missing:
            raise RuntimeError(f"mbpoll did not show {missing[:5]}")
        return memory


def read_tags(path):
    tags = []
    for line in open(path):
        line = line.split("#")[0].strip()
        if not line:
            continue
        f = [x.strip() for x in line.split(",")]
        if f[1] == "kind":
            continue
        tags.append({"name": f[0], "kind": int(f[1]), "address": f[2], "station": int(f[3]), "count": int(f[4])})
    return tags


def run(cmd, timeout=120):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)


def check_pass(label, cmd, tags, memory):
    r = run(cmd)
    if r.returncode != 0:
        print(f"FAIL {label}: exit {r.returncode}: {r.stderr.strip()[-300:]}")
        return False
    got = json.loads(r.stdout)
    bad = []
    if not got.get("complete"):
        bad.append("incomplete pass")
    by_name = {t["name"]: t for t in got["tags"]}
    for t in tags:
        want = expected(t, memory)
        have = by_name.get(t["name"], {}).get("values")
        if have != want:
            bad.append(f"{t['name']} (kind {t['kind']}): plcpoll {have}, memory {want}")
    if bad:
        print(f"FAIL {label}: " + "; ".join(bad))
        return False
    s = got["stats"]
    print(f"ok   {label}: {len(tags)} tags equal plcsim's memory ({s['requests']} requests, {s['retries']} retried)")
    return True


def new_values(tag, current):
    """Values to write, each different from the value there now."""
    kind, n = tag["kind"], len(current)
    if kind in (1, 5):
        return [1 - v for v in current]
    if kind in (7, 8):
        pattern = [(0x5A + 0x11 * i) & 0xFF for i in range(n)]
    elif kind in (3, 4):
        pattern = [0xB000 + 0x0111 * i + 0x40 * kind for i in range(n)]
    elif kind in (10, 11):
        pattern = [0x13579BDF - 0x01010101 * kind - i for i in range(n)]
    else:
        pattern = [0x0123456789ABCDEF + 0x0101010101010101 * kind + i for i in range(n)]
    return [v ^ 1 if v == c else v for v, c in zip(pattern, current)]


def check_write(label, base_cmd, tag, mb):
    kind = tag["kind"]
    before = mb.memory_for([tag])
    values = new_values(tag, expected(tag, before))
    r = run(base_cmd + ["--json", "write", str(kind), tag["address"]] + [hex(v) for v in values] +
            ["--station", str(STATION)])
    try:
        out = json.loads(r.stdout)
    except ValueError:
        print(f"FAIL {label} write kind {kind}: exit {r.returncode}, no JSON: {r.stderr.strip()[-300:]}")
        return False
    problems = []
    if out.get("result") != "ok":
        problems.append(f"result {out.get('result')}")
    if kind in (10, 13):
        # As plcpoll --help documents: the driver writes these kinds at the
        # doubled (quadrupled) address without the class-3 offset, that is
        # where kind 11 (14) of the same address lives, while its read back
        # shows the class-3 registers: exit status 1.
        target = dict(tag, kind=kind + 1)
        after = mb.memory_for([target, tag])
        if expected(target, after) != values:
            problems.append(f"registers of kind {kind + 1} at {tag['address']} hold {expected(target, after)}, "
                            f"not the values written {values}")
        if out.get("read_back") != expected(tag, after):
            problems.append(f"read back {out.get('read_back')} is not the class-3 registers {expected(tag, after)}")
        if r.returncode != 1:
            problems.append(f"exit status {r.returncode}, documented 1")
        note = f"landed at kind {kind + 1}'s registers, read back shows class 3, exit 1 (documented)"
    else:
        after = mb.memory_for([tag])
        if expected(tag, after) != values:
            problems.append(f"registers hold {expected(tag, after)}, not the values written {values}")
        if out.get("read_back") != values:
            problems.append(f"read back {out.get('read_back')}")
        if r.returncode != 0:
            problems.append(f"exit status {r.returncode}")
        note = "read back equal, registers equal"
    if problems:
        print(f"FAIL {label} write kind {kind:2d} at {tag['address']}: " + "; ".join(problems))
        return False
    print(f"ok   {label} write kind {kind:2d} at {tag['address']:>4} {[hex(v) for v in values]}: {note}")
    return True


def main():
    p = argparse.ArgumentParser(description="values check of the on-board test")
    p.add_argument("--host", required=True)
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--remote-port", type=int, required=True)
    p.add_argument("--tags", required=True)
    p.add_argument("--plcpoll", required=True, help="command that runs the board's plcpoll (shell words)")
    p.add_argument("--plcpoll-native", help="the PC's plcpoll, checked the same way")
    p.add_argument("--label", default="board")
    p.add_argument("--soak", type=float, default=0)
    a = p.parse_args()

    tags = read_tags(a.tags)
    if not tags:
        fail_usage(f"no tags in {a.tags}")
    mb = Mbpoll(a.host, a.port)
    ok = True
    try:
        # 1. A pattern in the coils and holding registers: every byte distinct.
        mb.write("hr", 0xA000, [((2 * i + 0x21) << 8) | (2 * i + 0x20) for i in range(48)])
        mb.write("hr", 0, [((2 * i + 0x81) << 8) | (2 * i + 0x80) for i in range(48)])
        mb.write("co", 0xA000, [1, 0, 1, 1, 0, 0, 1, 0] * 2)
        memory = mb.memory_for(tags)

        # 2. One pass over the tags, on both links.
        board = shlex.split(a.plcpoll)
        for link, port in (("modbus", a.port), ("remote", a.remote_port)):
            args = ["--host", a.host, "--port", str(port), "--link", link, "--tags", a.tags, "--once", "--json"]
            ok &= check_pass(f"{a.label} plcpoll --once --json, {link}", board + args, tags, memory)
            if a.plcpoll_native:
                ok &= check_pass(f"PC plcpoll --once --json, {link}", [a.plcpoll_native] + args, tags, memory)

        # 3. A write of each writable kind, read back by plcpoll and mbpoll.
        kinds = {t["kind"]: t for t in tags}
        missing = [k for k in WRITABLE if k not in kinds]
        if missing:
            print(f"FAIL the tag file has no tag of the writable kinds {missing}")
            ok = False
        for k in WRITABLE:
            if k in kinds:
                ok &= check_write(a.label, board + ["--host", a.host, "--port", str(a.port)], kinds[k], mb)

        # 4. Polling for a while: the link's statistics.
        if a.soak > 0:
            memory = mb.memory_for(tags)
            r = run(board + ["--host", a.host, "--port", str(a.port), "--tags", a.tags, "--json", "--interval", "0",
                             "--duration", str(a.soak), "--timeout", "150"], timeout=a.soak + 120)
            lines = [json.loads(x) for x in r.stdout.splitlines() if x.strip()]
            stats = lines[-1]["stats"] if lines and "stats" in lines[-1] else None
            last = [x for x in lines if "tags" in x]
            if r.returncode != 0 or not stats or not last:
                print(f"FAIL {a.label} polling for {a.soak:g} s: exit {r.returncode}: {r.stderr.strip()[-300:]}")
                ok = False
            else:
                by_name = {t["name"]: t["values"] for t in last[-1]["tags"]}
                wrong = [t["name"] for t in tags if by_name.get(t["name"]) != expected(t, memory)]
                rtt = stats["rtt_ms"]
                print(f"{'ok  ' if not wrong else 'FAIL'} {a.label} polling for {a.soak:g} s (reply timeout 150 ms): "
                      f"{stats['passes']} passes, {stats['requests']} requests, {stats['good_replies']} good, "
                      f"{stats['failed_replies']} failed, {stats['retries']} retried, {stats['timeouts']} timeouts, "
                      f"{stats['reconnects']} reconnects; round trip min {rtt['min']:.2f} avg {rtt['avg']:.2f} "
                      f"max {rtt['max']:.2f} ms" + (f"; last values differ: {wrong}" if wrong else ""))
                ok &= not wrong and stats["passes"] > 0
    except (RuntimeError, subprocess.TimeoutExpired, ValueError, KeyError) as e:
        print(f"FAIL {a.label}: {e}")
        ok = False
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
