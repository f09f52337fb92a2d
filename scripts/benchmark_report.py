#!/usr/bin/python3
"""Writes the benchmark report page from the JSON files a run produced.

    /usr/bin/python3 scripts/benchmark_report.py RESULTS_DIR [--baseline EARLIER_RESULTS_DIR]

Reads meta.json and whichever of bench_exchange.json, bench_read_list.json,
bench_mirror.json, callgrind.json, throughput.json, scaling.json and gateway.json exist;
writes summary.json (every figure shown), report.md and the charts (PNG,
drawn by gnuplot). Every number on the page is computed here from those
files; nothing is typed in by hand. Standard library only.
"""
import json
import math
import os
import statistics
import subprocess
import sys


def load(path):
    try:
        with open(path) as f:
            return json.load(f)
    except FileNotFoundError:
        return None


def median(xs):
    return statistics.median(xs) if xs else float("nan")


def spread(xs):
    """(median, min, max) of a list."""
    return (median(xs), min(xs), max(xs)) if xs else (float("nan"),) * 3


def fmt(x, digits=3):
    """A number with `digits` significant digits, thousands separated."""
    if x is None or (isinstance(x, float) and math.isnan(x)):
        return "n/a"
    if x == 0:
        return "0"
    mag = int(math.floor(math.log10(abs(x))))
    decimals = max(0, digits - 1 - mag)
    return f"{x:,.{decimals}f}"


def step_growth(rows):
    """rows: (n, value) in ascending n. The value's growth from each n to the next,
    as (n before, n, ratio); steps from a value of 0 or below are left out."""
    return [(rows[k - 1][0], n, v / rows[k - 1][1]) for k, (n, v) in enumerate(rows) if k > 0 and rows[k - 1][1] > 0]


def growth_text(steps):
    return ", ".join(f"{a:,} → {b:,}: {g:.1f}x" for a, b, g in steps)


def fit_power(xs, ys):
    """Least-squares fit of log y = log a + b log x; returns (a, b)."""
    lx = [math.log(x) for x in xs]
    ly = [math.log(y) for y in ys]
    n = len(lx)
    mx, my = sum(lx) / n, sum(ly) / n
    sxx = sum((x - mx) ** 2 for x in lx)
    b = sum((x - mx) * (y - my) for x, y in zip(lx, ly)) / sxx if sxx else 0.0
    return math.exp(my - b * mx), b


def fit_shape(xs, ys, shape):
    """Best one-parameter fit y = c * shape(x) in log space; returns the
    root-mean-square of the log residuals (smaller fits better)."""
    logs = [math.log(y) - math.log(shape(x)) for x, y in zip(xs, ys)]
    c = sum(logs) / len(logs)
    return math.sqrt(sum((v - c) ** 2 for v in logs) / len(logs))


def growth_words(b):
    if b < 0.15:
        return "about constant"
    if b < 0.85:
        return f"sub-linear (about n^{b:.2f})"
    if b <= 1.15:
        return "linear"
    return f"super-linear (about n^{b:.2f})"


class Plot:
    """A gnuplot script with inline data, rendered to PNG."""

    def __init__(self, out_dir, name):
        self.out_dir, self.name = out_dir, name
        self.lines = [
            "set terminal pngcairo size 900,520 font 'sans,10'",
            f"set output '{os.path.join(out_dir, name)}.png'",
            "set grid", "set key top left",
        ]

    def cmd(self, text):
        self.lines.append(text)

    def render(self, plots):
        """plots: list of (data rows, gnuplot 'using ... with ... title' text)."""
        parts = []
        data = []
        for i, (rows, using) in enumerate(plots):
            block = f"$d{i}"
            data.append(f"{block} << EOD")
            data.extend(" ".join(str(v) for v in row) for row in rows)
            data.append("EOD")
            parts.append(f"{block} {using}")
        script = "\n".join(data + self.lines + ["plot " + ", \\\n     ".join(parts)]) + "\n"
        with open(os.path.join(self.out_dir, self.name + ".gp"), "w") as f:
            f.write(script)
        subprocess.run(["gnuplot"], input=script, text=True, check=True)
        return self.name + ".png"


def gbench_runs(data):
    """Google Benchmark JSON: name -> list of per-repetition entries."""
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type") != "iteration":
            continue
        runs.setdefault(b["run_name"], []).append(b)
    return runs


def to_ns(value, unit):
    return value * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[unit]


def command_of(meta, name):
    for c in meta.get("commands", []):
        if c["name"] == name:
            return c["command"]
    return None


def throughput_summary(tp):
    cases = {c["name"]: c for c in tp["cases"]}
    out = []
    for name, c in cases.items():
        w = [x for x in tp["windows"] if x["case"] == name]
        by_round = {}
        for x in w:
            by_round.setdefault(x["round"], {})[x["client"]] = x
        host = [x["requests_per_s"] for x in w if x["client"] == "host"]
        lib = [x["requests_per_s"] for x in w if x["client"] == "libmodbus"]
        ratios = [r["host"]["requests_per_s"] / r["libmodbus"]["requests_per_s"]
                  for r in by_round.values() if "host" in r and "libmodbus" in r
                  and r["libmodbus"]["requests_per_s"] > 0]

        def per_req(client, key):
            return [x[key] / x["requests"] * 1e6 for x in w if x["client"] == client and x["requests"] > 0]

        def cpu(client):
            return [(x["cpu_user_s"] + x["cpu_system_s"]) / x["requests"] * 1e6
                    for x in w if x["client"] == client and x["requests"] > 0]

        out.append({
            "case": name, "count": c["count"], "unit": c["unit"], "function": c["function"],
            "modbus_address": c["modbus_address"], "libmodbus_call": c["libmodbus_call"],
            "host_entry": c["host_entry"],
            "host_rps": spread(host), "libmodbus_rps": spread(lib), "ratio": spread(ratios),
            "ratios": ratios,
            "host_units_per_s": median(host) * c["count"], "libmodbus_units_per_s": median(lib) * c["count"],
            "host_cpu_us": spread(cpu("host")), "libmodbus_cpu_us": spread(cpu("libmodbus")),
            "host_user_us": median(per_req("host", "cpu_user_s")),
            "host_system_us": median(per_req("host", "cpu_system_s")),
            "libmodbus_user_us": median(per_req("libmodbus", "cpu_user_s")),
            "libmodbus_system_us": median(per_req("libmodbus", "cpu_system_s")),
            "sim_cpu_us": median([x["sim_cpu_s"] / x["requests"] * 1e6 for x in w
                                  if x["requests"] > 0 and x["sim_cpu_s"] >= 0]),
            "libmodbus_rtt_us": 1e6 / median(lib) if lib and median(lib) > 0 else None,
            "windows": len(w), "failed": sum(x["failed"] for x in w),
            "values_ok": all(x["values_ok"] for x in w),
        })
    return out


def callgrind_calls(path, function):
    """How often `function` (a prefix of its name) was called, from a
    callgrind output file (names may be compressed to '(id)')."""
    names = {}
    calls = 0
    pending = False
    import re
    ref = re.compile(r"^c?fn=\((\d+)\)(?: (.*))?$")
    with open(path, errors="replace") as f:
        for line in f:
            m = ref.match(line.rstrip("\n"))
            if m:
                if m.group(2):
                    names[m.group(1)] = m.group(2)
                pending = line.startswith("cfn=") and names.get(m.group(1), "").startswith(function)
                continue
            if pending and line.startswith("calls="):
                calls += int(line[6:].split()[0])
                pending = False
    return calls


def callgrind_inclusive(path):
    """function name -> inclusive instructions, from callgrind_annotate --inclusive=yes."""
    import re
    row = re.compile(r"^\s*([\d,]+) \(\s*[\d.]+%\)\s+(?:\S*?:)?(.+?)(?: \[.*\])?$")
    out = {}
    with open(path, errors="replace") as f:
        for line in f:
            m = row.match(line.rstrip("\n"))
            if m and "PROGRAM TOTALS" not in line:
                name = m.group(2)
                out[name] = max(out.get(name, 0), int(m.group(1).replace(",", "")))
    return out


def profile_summary(logs):
    rows = []
    for case in ("bits_2000", "registers_100"):
        txt = os.path.join(logs, f"profile_{case}.txt")
        raw = os.path.join(logs, f"profile_{case}.out")
        if not (os.path.exists(txt) and os.path.exists(raw)):
            continue
        inc = callgrind_inclusive(txt)

        def find(prefix):
            return max((v for k, v in inc.items() if k.startswith(prefix)), default=0)

        total = find("plchost::Host::exchange_once")
        calls = callgrind_calls(raw, "plchost::Host::exchange_once")
        parts = {
            "DataCom (reply check and storage)": find("DataCom"),
            "of which save_to_local_data_erea (mirror store)": find("save_to_local_data_erea"),
            "ComCommunication (request)": find("ComCommunication"),
            "Host::transact (send, receive)": find("plchost::Host::transact"),
        }
        rows.append({"case": case, "exchanges": calls, "instructions": total,
                     "per_exchange": total / calls if calls else None,
                     "parts": {k: {"instructions": v, "share": v / total if total else None,
                                   "per_exchange": v / calls if calls else None} for k, v in parts.items()}})
    return rows



READ_LIST_BUDGET_MS = {10000: 2.0, 100000: 50.0}


def read_list_section(rl, meta, out_dir, w, summary):
    """Section 4: ReCreatReadVarList time against the number of descriptors."""
    w("## 4. ReCreatReadVarList time against tag count\n")
    w(f"Command: `{command_of(meta, 'bench_read_list')}`\n")
    w("`bench_read_list`: one rebuild of the cyclic list from n descriptors with shuffled addresses and "
      "duplicates; OneGroup = one station and kind, Spread = 16 stations and all 15 kinds. The plain "
      "variants rebuild from the same list every call (caches and branch predictor warm from the call "
      "before); the _FreshLists variants take the next of eight different lists each call. "
      "ReCreatReadVarList converts the descriptors to compact items, sorts them with a radix sort, merges "
      "each station-and-kind group into planned requests and makes each request a record. "
      "NamedRoutines makes the same list with the driver's named routines step by step (a record per "
      "descriptor in lists per station and kind, Bubble_Sort, BitVarReCreat). "
      "TouchingDescriptorsOnly is no rebuild but the floor under one: each descriptor and the first "
      "character of its address text read once, in order, nothing else. CPU time, median and range over "
      "the repetitions. Growth is given from the medians and from the fastest repetitions: other load on "
      "the machine only ever adds time, most of all to the largest lists, whose data it pushes out of the "
      "shared cache.\n")
    runs = gbench_runs(rl)
    series = {}
    for name, r in runs.items():
        base, _, n = name.rpartition("/")
        series.setdefault(base.replace("BM_ReCreatReadVarList_", "").replace("BM_", ""), []).append(
            (int(n), spread([to_ns(x["cpu_time"], x["time_unit"]) / 1e6 for x in r])))
    for pts in series.values():
        pts.sort()
    w("| variant | n | ms (median, min–max) | ns per descriptor |")
    w("|---|---|---|---|")
    for v, pts in sorted(series.items()):
        for n, (m, lo, hi) in pts:
            w(f"| {v} | {n:,} | {fmt(m)} ({fmt(lo)}–{fmt(hi)}) | {fmt(m * 1e6 / n)} |")
    w("")
    rebuilds = [v for v in sorted(series) if not v.startswith(("Touching", "NamedRoutines"))]
    budget = read_list_budget(series, rebuilds, w)
    fits = read_list_growth(series, w)
    above = read_list_above_floor(series, rebuilds, w)
    named = read_list_named_ratios(series, rebuilds, w)
    summary["read_list"] = {"series": {v: [(n, s) for n, s in pts] for v, pts in series.items()}, "fits": fits,
                            "budget": budget, "growth_above_floor": above, "named_routines_ratio": named}
    p = Plot(out_dir, "read_list")
    p.cmd("set termoption noenhanced")  # variant names hold underscores, not subscripts
    p.cmd("set logscale xy")
    p.cmd("set xlabel 'descriptors'")
    p.cmd("set ylabel 'ms per rebuild (CPU)'")
    p.cmd("set title 'Read-list rebuild time'")
    img = p.render([([(n, m, lo, hi) for n, (m, lo, hi) in pts],
                     f"using 1:2:3:4 with yerrorlines lw 2 title '{v} (slope {fits[v]['slope']:.2f})'")
                    for v, pts in sorted(series.items())])
    w(f"![read list]({img})\n")


def read_list_budget(series, rebuilds, w):
    """The rebuild against its budget: the slowest median and the slowest
    fastest repetition of every ReCreatReadVarList variant at each budgeted size."""
    rows = []
    for n, limit in sorted(READ_LIST_BUDGET_MS.items()):
        at = [dict(series[v])[n] for v in rebuilds if n in dict(series[v])]
        if not at:
            continue
        worst_median = max(m for m, _, _ in at)
        worst_fastest = max(lo for _, lo, _ in at)
        rows.append({"n": n, "budget_ms": limit, "worst_median_ms": worst_median,
                     "worst_fastest_ms": worst_fastest, "within": worst_median < limit})
        w(f"- Budget at {n:,} descriptors: under {fmt(limit)} ms. Slowest variant: median {fmt(worst_median)} ms, "
          f"fastest repetition {fmt(worst_fastest)} ms ({'within' if worst_median < limit else 'OVER'} budget).")
    w("")
    return rows


def read_list_growth(series, w):
    """Log-log slope and step growth of every variant, from medians and fastest repetitions."""
    fits = {}
    for v, pts in sorted(series.items()):
        xs = [n for n, _ in pts]
        ys = [m for _, (m, _, _) in pts]
        _, b = fit_power(xs, ys)
        _, b_fastest = fit_power(xs, [lo for _, (_, lo, _) in pts])
        fits[v] = {"slope": b, "slope_fastest": b_fastest,
                   "rms_linear": fit_shape(xs, ys, lambda x: x),
                   "rms_nlogn": fit_shape(xs, ys, lambda x: x * math.log(x)),
                   "growth": step_growth([(n, m) for n, (m, _, _) in pts]),
                   # The fastest repetition is the least disturbed by other load, so
                   # its growth moves less from run to run.
                   "growth_fastest": step_growth([(n, lo) for n, (_, lo, _) in pts])}
    for v, f in sorted(fits.items()):
        better = "n log n" if f["rms_nlogn"] < f["rms_linear"] else "linear"
        w(f"- {v}: log-log slope {f['slope']:.2f} ({growth_words(f['slope'])}), of the fastest repetitions "
          f"{f['slope_fastest']:.2f}; of the one-parameter shapes c·n and c·n·log n, {better} fits the points "
          f"better (rms log residual {f['rms_linear']:.3f} for c·n, {f['rms_nlogn']:.3f} for c·n·log n); time "
          f"growth {growth_text(f['growth'])}; of the fastest repetitions {growth_text(f['growth_fastest'])}.")
    w("")
    return fits


def read_list_above_floor(series, rebuilds, w):
    """What the rebuild costs above the floor, and how that grows: the part of
    the time that is the rebuild's own work rather than the machine bringing
    the runtime's descriptors in from memory."""
    above = {}
    for v in rebuilds:
        floor_name = "TouchingDescriptorsOnly" + ("_FreshLists" if v.endswith("_FreshLists") else "")
        if floor_name not in series:
            continue
        floor = {n: m for n, (m, _, _) in series[floor_name]}
        above[v] = step_growth([(n, m - floor[n]) for n, (m, _, _) in series[v] if n in floor])
    if above:
        w("Above the floor (rebuild time minus TouchingDescriptorsOnly of the same list policy), time growth:")
        w("")
        for v, g in above.items():
            w(f"- {v}: {growth_text(g)}.")
        w("")
    return above


def read_list_named_ratios(series, rebuilds, w):
    """NamedRoutines time over ReCreatReadVarList time, per size, side by side
    in the same run: what the rebuild's compact items buy."""
    ratios = {}
    for v in rebuilds:
        named = dict(series.get("NamedRoutines_" + v, []))
        if not named:
            continue
        ratios[v] = [(n, named[n][0] / m, named[n][1] / lo) for n, (m, lo, _) in series[v] if n in named]
    if ratios:
        w("The named routines step by step against ReCreatReadVarList (time ratio, medians / fastest repetitions):")
        w("")
        for v, rs in ratios.items():
            w(f"- {v}: " + ", ".join(f"{n:,}: {a:.1f}x / {b:.1f}x" for n, a, b in rs) + ".")
        w("")
    return ratios


def gateway_section(gw, meta, w, summary):
    """plcgate against mosquitto and plcsim (benchmarks/gateway/bench_gateway)."""
    w("## 4. plcgate: PLC values through an MQTT broker\n")
    w(f"Command: `{command_of(meta, 'gateway')}`\n")
    w(f"mosquitto, plcsim, plcgate, the Modbus writer (libmodbus) and the subscriber (libmosquitto, QoS 1) all run "
      f"on this machine's {gw.get('nproc', '?')} cores, shared with whatever else ran (load average above): "
      "every process here competes for the same two cores, so the absolute figures are those of a busy small "
      "machine and the ratios are the comparison to read.\n")
    w("Latency: the writer writes a new value into one holding register (t0, before the request is sent) and waits "
      "until the subscriber has the tag message with that value (t1); then a random pause of 0 to interval + 20 ms, "
      "so changes fall at every point of plcgate's poll cycle.\n")
    w("| [plc] interval | changes | median ms | 99th percentile ms | min–max ms | lost |")
    w("|---|---|---|---|---|---|")
    for r in gw.get("latency", []):
        w(f"| {r['interval_ms']} ms | {r['changes']} | {fmt(r['median_ms'])} | {fmt(r['p99_ms'])} | "
          f"{fmt(r['min_ms'])}–{fmt(r['max_ms'])} | {r['lost']} |")
    w("")
    ceiling = gw.get("ceiling", {})
    top = ceiling.get("messages_per_s") or float("nan")
    w("Throughput: every register of the tag file changes continuously (the writer rewrites them all with FC16 "
      "blocks, pass after pass); plcgate at [plc] interval 0 and [gateway] refresh 0 publishes each change it "
      "reads. Updates are tag messages the subscriber received per second; CPU is plcgate's user + system time "
      "(/proc/PID/stat) over the same window.\n")
    w("| changing tags | updates/s | share of the broker's ceiling | plcgate CPU µs per update | plcgate CPU "
      "(share of one core) | broker CPU s | plcsim CPU s | writer passes/s | changes coalesced (whole run) |")
    w("|---|---|---|---|---|---|---|---|---|")
    for r in gw.get("throughput", []):
        w(f"| {r['tags']:,} | {fmt(r['updates_per_s'])} | {r['updates_per_s'] / top * 100:.0f} % | "
          f"{fmt(r['gate_cpu_us_per_update'])} | {r['gate_cpu_share'] * 100:.0f} % | {fmt(r['broker_cpu_s'])} | "
          f"{fmt(r['plcsim_cpu_s'])} | {fmt(r['writer_passes_per_s'])} | {r['dropped']:,} |")
    w("")
    w(f"The broker's own ceiling on the same machine: `mosquitto_pub -l` publishing {ceiling.get('messages', 0):,} "
      f"lines of {ceiling.get('payload_bytes', '?')} bytes at QoS 1 to `mosquitto_sub -C` (QoS 1) through the same "
      f"mosquitto configuration: **{fmt(top)} messages/s** ({fmt(ceiling.get('seconds'))} s, broker CPU "
      f"{fmt(ceiling.get('broker_cpu_s'))} s).\n")
    summary["gateway"] = gw


def main():
    args = sys.argv[1:]
    if not args or args[0].startswith("-"):
        sys.exit(__doc__)
    out_dir = args[0]
    baseline_dir = args[args.index("--baseline") + 1] if "--baseline" in args else None

    meta = load(os.path.join(out_dir, "meta.json")) or {}
    exch = load(os.path.join(out_dir, "bench_exchange.json"))
    rl = load(os.path.join(out_dir, "bench_read_list.json"))
    mir = load(os.path.join(out_dir, "bench_mirror.json"))
    cg = load(os.path.join(out_dir, "callgrind.json"))
    tp = load(os.path.join(out_dir, "throughput.json"))
    sc = load(os.path.join(out_dir, "scaling.json"))
    gw = load(os.path.join(out_dir, "gateway.json"))
    base_tp = load(os.path.join(baseline_dir, "throughput.json")) if baseline_dir else None
    base_meta = (load(os.path.join(baseline_dir, "meta.json")) or {}) if baseline_dir else {}

    prof = profile_summary(os.path.join(out_dir, "logs"))
    summary = {"meta": meta}
    md = []
    w = md.append

    w("# plcdriver performance report\n")
    w(f"Produced by `{meta.get('command', 'bash scripts/benchmarks.sh')}` "
      f"(commit {meta.get('commit', '?')}"
      + (f", {meta['modified_tracked_files']} tracked file(s) modified" if meta.get("modified_tracked_files") else "")
      + f"), from {meta.get('start', '?')} to {meta.get('end', '?')} ({meta.get('seconds', '?')} s).\n")
    w("| machine | |\n|---|---|")
    w(f"| CPU | {meta.get('cpu_model', '?')} |")
    w(f"| nproc | {meta.get('nproc', '?')} |")
    w(f"| kernel | {meta.get('kernel', '?')} |")
    w(f"| load average (1, 5, 15 min) at start | {meta.get('load_start', '?')} |")
    w(f"| load average (1, 5, 15 min) at end | {meta.get('load_end', '?')} |")
    w(f"| build | Release, `{meta.get('build_dir', '?')}` |\n")
    w("Other work ran on the machine at the same time (see the load average), so "
      "comparisons are made side by side within one run: the two clients of the throughput "
      "benchmark take turns in rounds, and every figure is a median over repetitions with "
      "its spread (min to max) beside it.\n")

    # ------------------------------------------------------------ throughput
    tps = throughput_summary(tp) if tp else []
    summary["throughput"] = tps
    if tp:
        cfg = tp["config"]
        w("## 1. End-to-end read throughput: host + driver against plain libmodbus\n")
        w(f"Command: `{command_of(meta, 'throughput')}`\n")
        w(f"One plcsim (`{cfg['plcsim_args']}`) on 127.0.0.1, ephemeral port. "
          f"{cfg['rounds']} rounds; in each round every block is read for {cfg['seconds']} s by "
          "(a) the reference host with the driver (cyclic list of one block entry, poll interval 0, "
          f"max_read_units {cfg['host_max_read_units']}) and for the same time by (b) a libmodbus "
          "client loop on its own connection; the order of (a) and (b) flips every round. "
          "Both send one request at a time and read the same Modbus addresses. "
          "Ratio = (a)/(b) of the same round; its median and range over the rounds are shown. "
          "Every window checked that the values read back equal the pattern written into the simulator "
          "before the run.\n")
        w("| block | Modbus request | (a) host + driver req/s | (b) libmodbus req/s | ratio (a)/(b) | goal 0.95 | (a) units/s | (b) units/s |")
        w("|---|---|---|---|---|---|---|---|")
        for s in tps:
            h, l, r = s["host_rps"], s["libmodbus_rps"], s["ratio"]
            w(f"| {s['count']} {s['unit']} | fc {s['function']} at 0x{s['modbus_address']:04X} | "
              f"{fmt(h[0])} ({fmt(h[1])}–{fmt(h[2])}) | {fmt(l[0])} ({fmt(l[1])}–{fmt(l[2])}) | "
              f"**{r[0]:.3f}** ({r[1]:.3f}–{r[2]:.3f}) | {'met' if r[0] >= 0.95 else 'missed'} | "
              f"{fmt(s['host_units_per_s'])} | {fmt(s['libmodbus_units_per_s'])} |")
        w("")
        w("CPU time per request of the client process (user + system; only the client under test works "
          "during a window) and of the simulator:\n")
        w("| block | (a) host + driver µs/req | (a) user / system | (b) libmodbus µs/req | (b) user / system | plcsim µs/req | round trip of (b) µs |")
        w("|---|---|---|---|---|---|---|")
        for s in tps:
            hc, lc = s["host_cpu_us"], s["libmodbus_cpu_us"]
            w(f"| {s['count']} {s['unit']} | {fmt(hc[0])} ({fmt(hc[1])}–{fmt(hc[2])}) | "
              f"{fmt(s['host_user_us'])} / {fmt(s['host_system_us'])} | {fmt(lc[0])} ({fmt(lc[1])}–{fmt(lc[2])}) | "
              f"{fmt(s['libmodbus_user_us'])} / {fmt(s['libmodbus_system_us'])} | {fmt(s['sim_cpu_us'])} | "
              f"{fmt(s['libmodbus_rtt_us'])} |")
        w("")
        for s in tps:
            if s["ratio"][0] >= 0.95:
                continue
            extra = s["host_cpu_us"][0] - s["libmodbus_cpu_us"][0]
            text = (f"**{s['count']} {s['unit']} misses the goal** (ratio {s['ratio'][0]:.3f}). The host process "
                    f"spends {fmt(s['host_cpu_us'][0])} µs of CPU per request against {fmt(s['libmodbus_cpu_us'][0])} µs "
                    f"for the libmodbus loop ({'+' if extra >= 0 else ''}{fmt(extra)} µs), of a round trip of "
                    f"{fmt(s['libmodbus_rtt_us'])} µs that is otherwise the same for both clients (simulator, kernel, "
                    "wake-ups).")
            p_case = next((r for r in prof if r["case"] == s["case"]), None)
            if p_case:
                store = p_case["parts"]["of which save_to_local_data_erea (mirror store)"]
                text += (f" The profile below puts {store['share'] * 100:.1f} % of the communication thread's "
                         f"user-space instructions ({fmt(store['per_exchange'], 4)} of {fmt(p_case['per_exchange'], 4)} "
                         "per exchange) into the driver's mirror store, save_to_local_data_erea: one hash-table update "
                         "per bit, as the mirror keeps every bit as its own entry. That store, not the host's socket "
                         "work, bounds this block.")
            w(text + "\n")
        failed = sum(s["failed"] for s in tps)
        w(f"Failed replies over all windows: {failed}; values read back correctly in every window: "
          f"{'yes' if all(s['values_ok'] for s in tps) else 'NO'}.\n")
        rows_h = [(i, s["host_rps"][0], s["host_rps"][1], s["host_rps"][2]) for i, s in enumerate(tps)]
        rows_l = [(i, s["libmodbus_rps"][0], s["libmodbus_rps"][1], s["libmodbus_rps"][2]) for i, s in enumerate(tps)]
        rows_r = [(i, s["ratio"][0], s["ratio"][1], s["ratio"][2]) for i, s in enumerate(tps)]
        p = Plot(out_dir, "throughput")
        labels = ", ".join(f"'{s['count']} {s['unit'][:3]}' {i}" for i, s in enumerate(tps))
        p.cmd(f"set xtics ({labels})")
        p.cmd(f"set xrange [-0.6:{len(tps) - 0.4}]")
        p.cmd("set ylabel 'requests per second (median, min-max)'")
        p.cmd("set y2label 'ratio (a)/(b)'")
        p.cmd("set y2range [0:1.5]")
        p.cmd("set y2tics")
        p.cmd("set yrange [0:*]")
        p.cmd("set title 'Block reads over loopback against plcsim'")
        p.cmd("set key bottom left box opaque")
        img = p.render([
            ([(r[0] - 0.15,) + r[1:] for r in rows_h], "using 1:2:3:4 with yerrorbars lw 2 pt 7 title '(a) host + driver'"),
            ([(r[0] + 0.15,) + r[1:] for r in rows_l], "using 1:2:3:4 with yerrorbars lw 2 pt 5 title '(b) libmodbus'"),
            (rows_r, "using 1:2:3:4 axes x1y2 with yerrorlines lw 1 dt 2 pt 9 title 'ratio (a)/(b), right axis'"),
            ([(-0.6, 0.95), (len(tps) - 0.4, 0.95)], "using 1:2 axes x1y2 with lines lc 'red' dt 3 title 'goal 0.95'"),
        ])
        w(f"![throughput]({img})\n")
        if base_tp:
            base = {s["case"]: s for s in throughput_summary(base_tp)}
            w(f"### Before and after\n")
            w(f"Before: `{base_meta.get('command', '?')}` at commit {base_meta.get('commit', '?')} "
              f"({base_meta.get('start', '?')}, load {base_meta.get('load_start', '?')}). "
              "Ratios are medians of per-round (a)/(b) within each run.\n")
            w("| block | ratio before | ratio after | host µs CPU/req before | after |")
            w("|---|---|---|---|---|")
            for s in tps:
                b = base.get(s["case"])
                if not b:
                    continue
                w(f"| {s['count']} {s['unit']} | {b['ratio'][0]:.3f} ({b['ratio'][1]:.3f}–{b['ratio'][2]:.3f}) | "
                  f"{s['ratio'][0]:.3f} ({s['ratio'][1]:.3f}–{s['ratio'][2]:.3f}) | {fmt(b['host_cpu_us'][0])} | "
                  f"{fmt(s['host_cpu_us'][0])} |")
            w("")
            summary["throughput_baseline"] = list(base.values())

    if prof:
        summary["profile"] = prof
        w("### Where the communication thread's instructions go\n")
        cmds = [c["command"] for c in meta.get("commands", []) if c["name"].startswith("profile_")]
        w("callgrind on the throughput benchmark, counting only inside `Host::exchange_once` (one exchange of the "
          "communication thread: ComCommunication, send, receive, DataCom), user space only: the socket system "
          "calls themselves run in the kernel and are not counted. Commands: "
          + "; ".join(f"`{c}`" for c in cmds) + "\n")
        w("| block | exchanges | instructions per exchange | part | instructions per exchange | share |")
        w("|---|---|---|---|---|---|")
        for r in prof:
            first = True
            for k, v in r["parts"].items():
                lead = (f"| {r['case']} | {r['exchanges']:,} | {fmt(r['per_exchange'], 4)} " if first
                        else "| | | ")
                first = False
                share = f"{v['share'] * 100:.1f} %" if v["share"] is not None else "n/a"
                w(f"{lead}| {k} | {fmt(v['per_exchange'], 4)} | {share} |")
        w("")

    # ------------------------------------------------------ CPU per exchange
    if exch or cg:
        w("## 2. Driver CPU per exchange\n")
        w("One full exchange in-process (ComCommunication builds the request, DataCom checks the reply, "
          "stores it in the mirror and finishes the list entry), no socket: `bench_exchange`.\n")
        if exch:
            w(f"Command: `{command_of(meta, 'bench_exchange')}`\n")
        if cg:
            cmds = [c["command"] for c in meta.get("commands", []) if c["name"].startswith("callgrind_")]
            w(f"Instructions: callgrind, {cg['iterations']} exchanges per run, total / {cg['iterations']}; "
              f"e.g. `{cmds[0] if cmds else '?'}` (one run per case and link mode).\n")
        rtt = {s["case"]: s["libmodbus_rtt_us"] for s in tps}
        match = {"read_words": ("registers_100", "100-register read"),
                 "read_bits": ("bits_2000", "2,000-bit read (the exchange reads 1,000 bits)"),
                 "write_words": ("registers_100", "100-register read (no write round trip is measured)")}
        names = {"read_words": "BM_Exchange_Read100Registers", "read_bits": "BM_Exchange_Read1000Bits",
                 "write_words": "BM_Exchange_Write100Registers"}
        runs = gbench_runs(exch) if exch else {}
        rows = []
        w("| exchange | link | CPU ns (median, min–max) | instructions | share of one loopback round trip of (b) | round trip compared with |")
        w("|---|---|---|---|---|---|")
        for case in ("read_words", "read_bits", "write_words"):
            for mode in (0, 1):
                r = runs.get(f"{names[case]}/{mode}", [])
                cpu = [to_ns(x["cpu_time"], x["time_unit"]) for x in r]
                c = spread(cpu)
                instr = None
                if cg:
                    for x in cg["runs"]:
                        if x["case"] == case and x["link_mode"] == mode and x["instructions"]:
                            instr = x["instructions"] / cg["iterations"]
                key, what = match[case]
                share = c[0] / (rtt[key] * 1e3) if cpu and rtt.get(key) else None
                rows.append({"case": case, "link_mode": mode, "cpu_ns": c, "instructions": instr,
                             "share_of_rtt": share, "rtt_case": key})
                w(f"| {case} | {'Modbus TCP' if mode == 0 else 'remote frame'} | "
                  f"{fmt(c[0])} ({fmt(c[1])}–{fmt(c[2])}) | {fmt(instr, 4) if instr else 'n/a'} | "
                  f"{(f'{share * 100:.2f} %') if share is not None else 'n/a'} | {what}"
                  f"{(', ' + fmt(rtt[key]) + ' µs') if rtt.get(key) else ''} |")
        w("")
        summary["exchange"] = rows

    # --------------------------------------------------------------- scaling
    if sc:
        cfg = sc["config"]
        w("## 3. Scaling of the cyclic list over loopback\n")
        w(f"Command: `{command_of(meta, 'scaling')}`\n")
        w(f"plcsim `{cfg['plcsim_args']}`; host poll interval {cfg['host_poll_interval_ms']} (as fast as the link "
          f"allows), max_read_units {cfg['host_max_read_units']}. Tags are single 16-bit registers: tag i is on "
          f"station 1 + i mod S, and a station's tags sit in clusters of {cfg['cluster_tags']} consecutive registers, "
          f"one cluster every {cfg['cluster_stride']} registers, filling kind 4 (holding registers 0..65535), then "
          "kind 3 (holding registers from Modbus 0xA000), then kind 2 (input registers from Modbus 0x8000). The "
          "grouping then reads 10 clusters (100 tags, 118 registers with the gaps) per request once a station has "
          "that many. CPU is the CPU time of the whole host process (getrusage: driver, host and socket system "
          "calls of the communication thread; the main thread sleeps), not of the communication thread alone. "
          f"Each point is the median of {cfg['rounds']} window(s) of {cfg['seconds']} s.\n")
        groups = {}
        for r in sc["runs"]:
            groups.setdefault((r["stations"], r["tags"]), []).append(r)
        table = []
        for (s, n), rs in sorted(groups.items()):
            fresh = [r["tags_fresh_per_s"] for r in rs]
            rps = [r["requests_per_s"] for r in rs]
            cps = [(r["cpu_user_s"] + r["cpu_system_s"]) / r["seconds"] for r in rs if r["seconds"] > 0]
            cpr = [(r["cpu_user_s"] + r["cpu_system_s"]) / r["requests"] * 1e6 for r in rs if r["requests"] > 0]
            table.append({
                "stations": s, "tags": n, "entries": rs[0]["entries"],
                "registers_per_request": rs[0]["registers_per_pass"] / rs[0]["entries"],
                "tags_fresh_per_s": spread(fresh), "requests_per_s": spread(rps), "cpu_s_per_s": spread(cps),
                "cpu_us_per_request": spread(cpr),
                "cpu_ns_per_tag_refresh": median(cps) / median(fresh) * 1e9 if fresh and median(fresh) > 0 else None,
                "set_tags_ms": median([r["set_tags_s"] * 1e3 for r in rs]),
                "mirror_entries": rs[0]["mirror_entries"], "mirror_bytes": median([r["mirror_bytes"] for r in rs]),
                "failed": sum(r["failed"] for r in rs),
            })
        summary["scaling"] = table
        w("| stations | tags | requests per pass | registers per request | tags kept fresh per s | requests/s | CPU s per s | CPU µs per request | CPU ns per tag refresh | set_tags ms |")
        w("|---|---|---|---|---|---|---|---|---|---|")
        for t in table:
            f, q, c, u = t["tags_fresh_per_s"], t["requests_per_s"], t["cpu_s_per_s"], t["cpu_us_per_request"]
            w(f"| {t['stations']} | {t['tags']:,} | {t['entries']:,} | {t['registers_per_request']:.1f} | "
              f"{fmt(f[0])} ({fmt(f[1])}–{fmt(f[2])}) | {fmt(q[0])} | {c[0]:.3f} ({c[1]:.3f}–{c[2]:.3f}) | "
              f"{fmt(u[0])} | {fmt(t['cpu_ns_per_tag_refresh'])} | {fmt(t['set_tags_ms'])} |")
        w("")
        failed = sum(t["failed"] for t in table)
        w(f"Failed replies over all runs: {failed}.\n")
        station_counts = sorted({t["stations"] for t in table})
        p = Plot(out_dir, "scaling")
        p.cmd("set logscale x")
        p.cmd("set logscale y")
        p.cmd("set xlabel 'tags in the cyclic list'")
        p.cmd("set ylabel 'tags kept fresh per second'")
        p.cmd("set y2label 'CPU seconds per second (host process)'")
        p.cmd("set y2tics")
        p.cmd("set y2range [0:*]")
        p.cmd("set key bottom right")
        p.cmd("set title 'Cyclic list over loopback: freshness (solid, left) and CPU (dashed, right)'")
        plots = []
        for i, s in enumerate(station_counts):
            pts = [(t["tags"], t["tags_fresh_per_s"][0], t["tags_fresh_per_s"][1], t["tags_fresh_per_s"][2])
                   for t in table if t["stations"] == s]
            plots.append((pts, f"using 1:2:3:4 with yerrorlines lw 2 lc {i + 1} title 'tags fresh/s, {s} station(s)'"))
        for i, s in enumerate(station_counts):
            pts = [(t["tags"], t["cpu_s_per_s"][0]) for t in table if t["stations"] == s]
            plots.append((pts, f"using 1:2 axes x1y2 with linespoints dt 2 lc {i + 1} title 'CPU s/s, {s} station(s)'"))
        img = p.render(plots)
        w(f"![scaling]({img})\n")
        words = []
        for s in station_counts:
            pts = [t for t in table if t["stations"] == s]
            xs = [t["tags"] for t in pts]
            _, b_fresh = fit_power(xs, [t["tags_fresh_per_s"][0] for t in pts])
            big = [t for t in pts if t["tags"] >= 1000]
            _, b_big = fit_power([t["tags"] for t in big], [t["tags_fresh_per_s"][0] for t in big]) \
                if len(big) >= 2 else (None, float("nan"))
            _, b_cpu = fit_power(xs, [t["cpu_s_per_s"][0] for t in pts])
            _, b_tag = fit_power(xs, [t["cpu_ns_per_tag_refresh"] for t in pts])
            words.append({"stations": s, "fresh_slope": b_fresh, "fresh_slope_from_1000": b_big,
                          "cpu_slope": b_cpu, "cpu_per_tag_slope": b_tag})
            w(f"- {s} station(s): tags kept fresh per second grow with log-log slope {b_fresh:.2f} over "
              f"{xs[0]:,}..{xs[-1]:,} tags ({growth_words(b_fresh)}), and with slope {b_big:.2f} from 1,000 tags on "
              f"({growth_words(b_big)}): once the requests are full blocks, more tags only mean more requests per "
              f"pass at the same request rate. CPU seconds per second: slope {b_cpu:.2f} ({growth_words(b_cpu)}); "
              f"CPU per tag refresh: slope {b_tag:.2f}.")
        w("")
        summary["scaling_fits"] = words

    # ------------------------------------------------------------- read list
    if rl:
        read_list_section(rl, meta, out_dir, w, summary)

    # ---------------------------------------------------------------- mirror
    if sc or mir:
        w("## 5. Mirror memory against tag count\n")
        if sc:
            w(f"Measured directly in the scaling run (command in section 3): after each run the mirror is "
              "deep-copied by the main thread and the heap growth of the copy (mallinfo2) is its size; entries "
              "are words and bits in the mirror (the gaps between clusters are read along, so there are about "
              "1.18 entries per tag).\n")
            pts = {}
            for t in summary["scaling"]:
                pts.setdefault(t["tags"], []).append(t)
            rows = [(n, median([t["mirror_bytes"] for t in ts]), median([t["mirror_entries"] for t in ts]))
                    for n, ts in sorted(pts.items())]
            w("| tags | mirror entries | mirror bytes | bytes per tag | bytes per entry |")
            w("|---|---|---|---|---|")
            for n, b, e in rows:
                w(f"| {n:,} | {fmt(e)} | {fmt(b)} | {fmt(b / n)} | {fmt(b / e) if e else 'n/a'} |")
            w("")
            xs = [r[0] for r in rows if r[1] > 0]
            ys = [r[1] for r in rows if r[1] > 0]
            a, b = fit_power(xs, ys)
            big = [(n, v) for n, v, _ in rows if n >= 1000 and v > 0]
            _, b_big = fit_power([n for n, _ in big], [v for _, v in big]) if len(big) >= 2 else (0, float("nan"))
            w(f"Growth: log-log slope {b:.2f} over {xs[0]:,}..{xs[-1]:,} tags ({growth_words(b)}); "
              f"{b_big:.2f} from 1,000 tags on ({growth_words(b_big)}), where fixed overheads no longer count.\n")
            summary["mirror_scaling"] = {"rows": rows, "slope": b, "slope_from_1000": b_big}
            p = Plot(out_dir, "mirror")
            p.cmd("set logscale xy")
            p.cmd("set xlabel 'tags in the cyclic list'")
            p.cmd("set ylabel 'bytes of heap'")
            p.cmd(f"set title 'Mirror memory after a full pass (slope {b:.2f})'")
            img = p.render([([(n, v) for n, v, _ in rows], "using 1:2 with linespoints lw 2 pt 7 title 'mirror bytes'")])
            w(f"![mirror]({img})\n")
        if mir:
            w(f"From `bench_mirror` (command: `{command_of(meta, 'bench_mirror')}`), 100,000 entries written into "
              "an empty mirror:\n")
            runs = gbench_runs(mir)
            for name, key in (("BM_MirrorMemory_PerWord", "bytes_per_word"), ("BM_MirrorMemory_PerBit", "bytes_per_bit")):
                vals = [x[key] for x in runs.get(name, []) if key in x]
                if vals:
                    m = spread(vals)
                    w(f"- {key.replace('_', ' ')}: {fmt(m[0])} ({fmt(m[1])}–{fmt(m[2])})")
                    summary.setdefault("mirror_bench", {})[key] = m
            w("")
            w("| bench_mirror case | CPU ns per call (median, min–max) |")
            w("|---|---|")
            for name, r in sorted(runs.items()):
                if "Memory" in name:
                    continue
                c = spread([to_ns(x["cpu_time"], x["time_unit"]) for x in r])
                w(f"| {name} | {fmt(c[0])} ({fmt(c[1])}–{fmt(c[2])}) |")
            w("")

    if gw:
        gateway_section(gw, meta, w, summary)

    w("## Commands of this run\n")
    for c in meta.get("commands", []):
        w(f"- {c['name']}: `{c['command']}`")
    w("")

    with open(os.path.join(out_dir, "report.md"), "w") as f:
        f.write("\n".join(md))
    with open(os.path.join(out_dir, "summary.json"), "w") as f:
        json.dump(summary, f, indent=1, default=str)


if __name__ == "__main__":
    main()
