#!/usr/bin/env python3
"""The soak and fault campaign on one simulated unit (called by scripts/soak.sh).

`soak.py run` brings up a unit on fsusim with the campaign's application (bench/soak_unit),
applies the fault schedule against it, samples the application's process every 10 s into
soak.csv, and then judges the run: it writes summary.md and soak.png and exits non-zero when a
pass rule fails. `soak.py report OUT` judges an earlier run again from its files.
"""
import argparse
import csv
import errno
import json
import os
import random
import signal
import subprocess
import sys
import time

SAMPLE_S = 10
PORTS = range(1, 13)
BOARD_PORTS = {1: [5, 6, 7, 8], 2: [9, 10, 11, 12]}

# Start-up: InitializeSDK sleeps 1 s in the LED sweep, 2 s for the boards to answer, and, as it
# brings the receiver to its mode, 1 s between the mode and save commands and 2 s after them;
# with a working hardware clock it waits for nothing else.
STARTUP_SLEEPS_S = 6.0
STARTUP_GOAL = 0.05

# Service back after a fault, in seconds (measured; see docs/soak.md). The link counts from the
# application's next dial request after the fault.
MODEM_BACK_S = 15
LINK_AFTER_DIAL_S = 30
LINK_TOTAL_S = 60  # the application asks again at most every 20 s
POSITION_BACK_S = 8
# A request written while /tmp was full may still be waiting for its answer (3 s) when space
# comes back; the next one follows a second later and is answered within the second after.
WEB_BACK_S = 6


class Fault:
    """One kind of fault: how it is applied and lifted, which services it makes dead, and how
    soon after it is lifted each of them must be back (measured; see docs/soak.md)."""

    def __init__(self, key, title, hold_s, services, back_limit_s, apply, lift):
        self.key, self.title, self.hold_s = key, title, hold_s
        self.services, self.back_limit_s = services, back_limit_s
        self.apply, self.lift = apply, lift


class Unit:
    """The running unit: its root, the campaign's output folder and the fsusim binary."""

    def __init__(self, root, out, fsusim):
        self.root, self.out, self.fsusim = root, out, fsusim
        self.fill_path = os.path.join(root, "tmp", "soak_fill")

    def ctl(self, *lines):
        subprocess.run([self.fsusim, "ctl", "--root", self.root, *lines], check=True,
                       stdout=subprocess.DEVNULL)

    def fill_tmp(self):
        """Fills the unit's /tmp (a small tmpfs of its own) to the last byte."""
        with open(self.fill_path, "wb", buffering=0) as f:
            for chunk in (1 << 20, 4096, 1):
                try:
                    while True:
                        f.write(b"\0" * chunk)
                except OSError as e:
                    if e.errno != errno.ENOSPC:
                        raise

    def free_tmp(self):
        os.unlink(self.fill_path)

    def garbage_requests(self):
        """Request files of random bytes, each written under another name and renamed into
        place as the web pages do."""
        rng = random.Random(1234)
        for name in ("web_dtu_com", "set_com_attr", "web_set_log_save"):
            temp = os.path.join(self.root, "tmp", ".garbage")
            with open(temp, "wb") as f:
                f.write(bytes(rng.randrange(256) for _ in range(8192)))
            os.rename(temp, os.path.join(self.root, "tmp", name))


def faults_for(unit, features):
    """The faults of a run; `features` are the parts of the unit the build has beyond the
    serial boards: "tmp_full" (a /tmp of its own), "web", "modem", "gps"."""
    board = [f"uart{p}" for p in BOARD_PORTS[1]]
    web = "web" in features
    faults = [
        Fault("board1", "extension board 1 silent", 30, board + ["inputs", "relays"],
              {**{s: 3 for s in board}, "inputs": 3},
              lambda: unit.ctl("board 1 silent"), lambda: unit.ctl("board 1 on")),
        Fault("board2", "extension board 2 silent", 30, [f"uart{p}" for p in BOARD_PORTS[2]],
              {f"uart{p}": 3 for p in BOARD_PORTS[2]},
              lambda: unit.ctl("board 2 silent"), lambda: unit.ctl("board 2 on")),
        Fault("env", "environment board silent", 30, ["inputs", "relays"], {"inputs": 3},
              lambda: unit.ctl("env silent"), lambda: unit.ctl("env on")),
    ]
    if "modem" in features:
        faults += [
            Fault("modem", "modem pulled and plugged back", 60, ["modem", "link"],
                  {"modem": MODEM_BACK_S, "link": LINK_AFTER_DIAL_S},
                  lambda: unit.ctl("modem unplug"), lambda: unit.ctl("modem plug")),
            Fault("atsilent", "AT port silent", 60, ["modem"], {"modem": MODEM_BACK_S},
                  lambda: unit.ctl("modem silent on"), lambda: unit.ctl("modem silent off")),
            Fault("linkdrop", "link dropped", 0, ["link"], {"link": LINK_AFTER_DIAL_S},
                  lambda: unit.ctl("modem link-drop"), lambda: None),
        ]
    if "gps" in features:
        faults += [
            Fault("nofix", "receiver without a fix", 60, ["position"], {"position": POSITION_BACK_S},
                  lambda: unit.ctl("gps nofix"), lambda: unit.ctl("gps fix")),
            Fault("gpssilent", "receiver silent", 60, ["position"], {"position": POSITION_BACK_S},
                  lambda: unit.ctl("gps silent"), lambda: unit.ctl("gps fix")),
        ]
    if "tmp_full" in features:
        faults.append(Fault("tmpfull", "/tmp full", 60, ["web", "log"],
                            {"log": 3, **({"web": WEB_BACK_S} if web else {})}, unit.fill_tmp, unit.free_tmp))
    faults.append(Fault("garbage", "request files of garbage", 0, [], {"web": WEB_BACK_S} if web else {},
                        unit.garbage_requests, lambda: None))
    return faults


def schedule(faults, seconds):
    """(plan, baseline): the fault occurrences (start, end, fault) of a run of `seconds`, and
    the time from which memory is judged. After a quiet start, a first round applies every
    fault once, briefly, so that every path of the code has run before the baseline: the
    baseline is at 5 minutes, or at the end of that round in a run shorter than 15 minutes. Then
    the faults come round again, held their full time (a shorter time in a short run), with
    quiet gaps, as often as they fit before a quiet end."""
    short = seconds < 15 * 60
    warm, tail = (10, 35) if short else (30, 60)  # a dropped link takes up to 35 s to return
    plan, t = [], warm
    for f in faults:
        # In the hour, the modem away and /tmp full are held their full minute in the first
        # round too: the first such minute deepened the SDK's thread stacks and an allocation
        # arena by 16 kB each (measured), which belongs before the baseline.
        hold = f.hold_s if not short and f.key in ("modem", "tmpfull") else min(f.hold_s, 8)
        plan.append((t, t + hold, f))
        t += hold + (4 if short else 5)
    baseline = t if short else max(t, 300)
    holds = [min(f.hold_s, 8) if short else f.hold_s for f in faults]
    gap = 4 if short else 60
    round_s = sum(h + gap for h in holds)
    rounds = int((seconds - tail - baseline) // round_s)
    if rounds > 0:
        gap += (seconds - tail - baseline - rounds * round_s) / (rounds * len(faults))
    t = baseline
    for _ in range(rounds):
        for f, h in zip(faults, holds):
            plan.append((t, t + h, f))
            t += h + gap
    if rounds == 0:  # a short run: as many as fit
        for f, h in zip(faults, holds):
            if t + h + gap > seconds - tail:
                break
            plan.append((t, t + h, f))
            t += h + gap
    return plan, baseline


# ---- sampling ----

def proc_sample(pid):
    """Resident memory (kB, and of it anonymous), open descriptors, threads and CPU seconds of
    a process."""
    with open(f"/proc/{pid}/status") as f:
        status = dict(line.split(":", 1) for line in f if ":" in line)
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    cpu = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    # The SDK opens files and pipes for a moment; the least of a few looks is what it holds.
    fds = min(len(os.listdir(f"/proc/{pid}/fd")) for _ in range(3) if time.sleep(0.02) is None)
    kb = lambda key: int(status[key].split()[0])
    return kb("VmRSS"), kb("RssAnon"), fds, int(status["Threads"]), cpu


def read_counters(out):
    values = {}
    try:
        with open(os.path.join(out, "counters")) as f:
            for line in f:  # "key=value ..." or "portN key=value ..."
                words = line.split()
                prefix = "" if "=" in words[0] else words.pop(0) + "_"
                for pair in words:
                    key, _, value = pair.partition("=")
                    values[prefix + key] = int(value)
    except OSError:
        pass
    return values


def read_events(out):
    events = []
    try:
        with open(os.path.join(out, "events.log")) as f:
            for line in f:
                parts = line.split()
                if len(parts) < 2:
                    continue
                fields = dict(p.split("=", 1) for p in parts[2:] if "=" in p)
                events.append((int(parts[0]) / 1000.0, parts[1], fields))
    except OSError:
        pass
    return events


def wait_for_event(out, kind, proc, timeout):
    deadline = time.time() + timeout
    while time.time() < deadline:
        for at, k, fields in read_events(out):
            if k == kind:
                return at, fields
        if proc.poll() is not None:
            break
        time.sleep(0.1)
    return None, None


def child_pid(parent, name):
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        if stat.split(") ", 1)[1].split()[1] == str(parent) and f"({name})" in stat:
            return int(entry)
    return None


def link_state(root):
    try:
        with open(os.path.join(root, "sim", "ppp0")) as f:
            return "up " + f.read().strip()
    except OSError:
        return "down"


def run(args):
    out, root = os.path.abspath(args.out), os.path.abspath(args.root)
    os.makedirs(os.path.join(out, "sanitizer"), exist_ok=True)
    unit = Unit(root, out, args.fsusim)
    features = [f for f in ("web", "modem", "gps") if getattr(args, f)]
    features += ["tmp_full"] if args.tmp_full == "yes" else []
    faults = faults_for(unit, features)
    seconds = args.minutes * 60
    plan, baseline = schedule(faults, seconds)
    meta = {"minutes": args.minutes, "build": args.build_kind, "tmp_full": args.tmp_full,
            "faults": [f.key for f in faults], "features": features, "baseline": baseline}
    env = dict(os.environ)
    reports = os.path.join(out, "sanitizer")
    env["ASAN_OPTIONS"] = f"halt_on_error=1:detect_leaks=0:log_path={reports}/asan"
    env["UBSAN_OPTIONS"] = f"halt_on_error=1:print_stacktrace=1:log_path={reports}/ubsan"
    command = [args.fsusim, "run", "--root", root, "--", args.app, out, str(seconds)]
    command += [f for f in features if f != "tmp_full"]
    with open(os.path.join(out, "unit.log"), "w") as log:
        proc = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT, env=env)
    started, _ = wait_for_event(out, "load_started", proc, 120)
    pid = child_pid(proc.pid, "soak_unit") if started else None
    if pid is None:
        proc.kill()
        print("soak: the application did not start; see unit.log", file=sys.stderr)
        return 1
    sim_pid = proc.pid
    applied = []  # (key, title, start, end) in seconds since the load started
    pending = [(s, e, f) for s, e, f in plan]
    active = []
    rows = []
    last = {}
    last_cpu = None
    next_sample = started
    while proc.poll() is None:
        now = time.time()
        t = now - started
        for item in list(pending):
            s, e, f = item
            if t >= s:
                f.apply()
                pending.remove(item)
                active.append([time.time() - started, e, f])
        for item in list(active):
            s, e, f = item
            if t >= e:
                f.lift()
                active.remove(item)
                applied.append((f.key, f.title, s, time.time() - started))
        if now >= next_sample:
            next_sample += SAMPLE_S
            try:
                rss, anon, fds, threads, cpu = proc_sample(pid)
                sim_cpu = proc_sample(sim_pid)[4]
            except (OSError, KeyError, IndexError):
                break
            counters = read_counters(out)
            row = {"time_s": round(now - started, 1), "rss_kb": rss, "rss_anon_kb": anon, "fds": fds,
                   "threads": threads}
            if last_cpu is not None:
                span = now - last_cpu[0]
                row["cpu_pct"] = round(100 * (cpu - last_cpu[1]) / span, 1)
                row["sim_cpu_pct"] = round(100 * (sim_cpu - last_cpu[2]) / span, 1)
            else:
                row["cpu_pct"] = row["sim_cpu_pct"] = ""
            last_cpu = (now, cpu, sim_cpu)
            for p in PORTS:
                for key in ("sent", "received", "bad", "lost"):
                    name = f"port{p}_{key}"
                    row[f"p{p}_{key}"] = counters.get(name, 0) - last.get(name, 0)
            for name in ("reading", "modem", "position"):
                age = counters.get(f"{name}_age_ms", -1)
                row[f"{name}_age_s"] = round(age / 1000, 1) if age > 0 else ""
            row["link"] = link_state(root)
            for key in ("web_ok", "web_failed", "relays_wrong"):
                row[key] = counters.get(key, 0) - last.get(key, 0)
            window = (now - SAMPLE_S - started, now - started)
            names = [f.key for _, _, f in active]
            names += [k for k, _, s, e in applied if s < window[1] and e > window[0] and k not in names]
            row["fault"] = "+".join(names) if names else "-"
            rows.append(row)
            last = counters
        time.sleep(0.05)
    for s, e, f in active:  # the run ended early: leave no fault behind
        f.lift()
        applied.append((f.key, f.title, s, time.time() - started))
    meta["exit_status"] = proc.wait()
    meta["started"] = started
    meta["applied"] = applied
    with open(os.path.join(out, "soak.csv"), "w", newline="") as f:
        writer = csv.DictWriter(f, fieldnames=list(rows[0].keys()) if rows else ["time_s"])
        writer.writeheader()
        writer.writerows(rows)
    with open(os.path.join(out, "run.json"), "w") as f:
        json.dump(meta, f, indent=1)
    return report(out, faults)


# ---- judging and reporting ----

def report(out, faults=None):
    with open(os.path.join(out, "run.json")) as f:
        meta = json.load(f)
    with open(os.path.join(out, "soak.csv")) as f:
        rows = list(csv.DictReader(f))
    if faults is None:
        faults = faults_for(Unit("", out, ""), meta["features"])
    by_key = {f.key: f for f in faults}
    started = meta["started"]
    events = [(at - started, kind, fields) for at, kind, fields in read_events(out)]
    for _, _, fields in events:  # times of the events' own fields, as seconds of the run too
        for key in ("last_ok", "sent_from", "sent_to"):
            if key in fields:
                fields[key] = int(fields[key]) / 1000 - started
    applied = meta["applied"]
    rules = []  # (rule, passed, detail)

    def rule(name, passed, detail):
        rules.append((name, passed, detail))

    # The run itself.
    done = any(kind == "done" for _, kind, _ in events)
    rule("the application ran to its end", done and meta["exit_status"] == 0,
         f"exit status {meta['exit_status']}" + ("" if done else ", no end record"))

    # Memory, descriptors, threads.
    seconds = meta["minutes"] * 60
    base_at = meta["baseline"]
    rss = [(float(r["time_s"]), int(r["rss_kb"])) for r in rows]
    base = next((v for t, v in rss if t >= base_at), None)
    end_rss = rss[-1][1] if rss else None
    if base and end_rss:
        growth = 100.0 * (end_rss - base) / base
        peak = max(v for t, v in rss if t >= base_at)
        figures = (f"{base} kB at {base_at / 60:.1f} min, {end_rss} kB at the end ({growth:+.2f}%), "
                   f"peak {peak} kB")
        if meta["build"] == "asan":  # its allocator keeps freed blocks: the figure is no leak test
            rule("resident memory (not judged in the ASan build)", True, figures)
        else:
            rule(f"resident memory grows by less than 1% after the first {base_at / 60:.1f} min",
                 growth < 1.0, figures)
    else:
        rule("resident memory grows by less than 1%", False, "too few samples")
    # Descriptors and threads: the least count before the first fault against the least in the
    # quiet end (the SDK holds a file, a pipe or the modem's port open for a moment now and then).
    first_fault = min((s for _, _, s, _ in applied), default=0)
    last_fault = max((e for _, _, _, e in applied), default=0)
    for key in ("fds", "threads"):
        begin = [int(r[key]) for r in rows if float(r["time_s"]) <= first_fault]
        end = [int(r[key]) for r in rows if float(r["time_s"]) > last_fault + 3]
        first, final = (min(begin), min(end)) if begin and end else (None, None)
        rule(f"{'descriptors' if key == 'fds' else 'threads'} end where they began",
             first is not None and first == final,
             f"{first} before the first fault, {final} after the last (least of the samples)")

    # Bytes: every incident must fall within a fault that makes its stream dead.
    def covered(service, t_from, t_to, before=2.0, after=2.0):
        for key, _, s, e in applied:
            if service in by_key[key].services and t_from <= e + after and t_to >= s - before:
                return True
        return False

    lost_total = bad_total = 0
    stray = []
    for at, kind, fields in events:
        if kind != "incident":
            continue
        lost, bad = int(fields["lost"]), int(fields["bad"])
        lost_total += lost
        bad_total += bad
        t_from, t_to = fields["sent_from"], fields["sent_to"]
        if not covered(fields["service"], t_from, t_to):
            stray.append(f"{fields['service']} {lost} lost, {bad} out of pattern, sent "
                         f"{t_from:.1f}-{t_to:.1f} s")
    sent = sum(int(r[f"p{p}_sent"]) for r in rows for p in PORTS)
    rule("no byte lost or out of pattern outside a fault that makes its path dead", not stray,
         f"{sent} bytes sent; within faults {lost_total} lost and {bad_total} out of pattern"
         + ("; outside: " + "; ".join(stray[:5]) if stray else ""))

    # Services lost outside the faults (a relay that did not follow counts as well).
    lost_outside = []
    for at, kind, fields in events:
        if kind == "down":
            if not covered(fields["service"], fields["last_ok"], at, after=6.0):
                lost_outside.append(f"{fields['service']} at {at:.1f} s")
        elif kind == "relay_mismatch" and not covered("relays", at - 3, at, after=6.0):
            lost_outside.append(f"relay {fields['output']} at {at:.1f} s")
    rule("no service lost outside the faults", not lost_outside,
         "; ".join(lost_outside[:8]) if lost_outside else "every loss fell within a fault")

    # Service back after each fault.
    recoveries = []
    all_back = True
    for key, title, s, e in applied:
        backs = []
        for service, limit in by_key[key].back_limit_s.items():
            back, since = service_back(events, service, e)
            ok = back is not None and back - since <= limit and back <= LINK_TOTAL_S
            all_back &= ok
            backs.append((service, back, since, limit, ok))
        recoveries.append((title, s, e, backs))
    rule("after each fault its service is back within the limit", all_back,
         f"{len(applied)} faults applied")

    # Every service the unit offers is there at the end.
    wanted = {"inputs", "log"} | ({"web"} if "web" in meta["features"] else set())
    wanted |= {"modem", "link"} if "modem" in meta["features"] else set()
    wanted |= {"position"} if "gps" in meta["features"] else set()
    ends = {fl["service"]: fl["state"] for _, kind, fl in events if kind == "end"}
    missing = sorted(svc for svc in wanted if ends.get(svc) != "up")
    rule("every service is there at the end", not missing,
         ("not there: " + ", ".join(missing)) if missing else ", ".join(sorted(wanted)))

    # Sanitizer reports.
    reports = sorted(os.listdir(os.path.join(out, "sanitizer")))
    rule("no sanitizer report" + (" (ASan+UBSan build)" if meta["build"] == "asan" else ""),
         not reports, ", ".join(reports[:5]) if reports else "none")

    # Every fault of the schedule ran.
    missing = [k for k in meta["faults"] if k not in {a[0] for a in applied}]
    rule("every fault of the schedule was applied", not missing,
         ", ".join(missing) if missing else ", ".join(meta["faults"]))

    startup = next((float(fl["init_ms"]) / 1000 for _, kind, fl in events if kind == "startup"), None)
    write_summary(out, meta, rows, rules, recoveries, startup)
    plot(out, rows, applied, by_key, events)
    failed = [r for r in rules if not r[1]]
    for name, passed, detail in rules:
        print(f"soak: {'pass' if passed else 'FAIL'}: {name}: {detail}")
    return 1 if failed else 0


def service_back(events, service, end):
    """(back, since): seconds from the end of a fault until `service` was seen working again
    (0 when it was not lost then; None when it never came back), and for the link the seconds
    from that end to the dial request that brought it back, from which its limit counts (0 for
    the others)."""
    state, back = "up", None
    for at, kind, fields in events:
        if fields.get("service") != service or kind not in ("up", "down"):
            continue
        if at <= end:
            state = kind
        elif state == "down" and kind == "up":
            back = at - end
            break
        elif kind == "down" and fields["last_ok"] <= end + 2:
            state = "down"  # lost just before the end, or at once (a fault of no duration)
    if state == "up" and back is None:
        return 0.0, 0.0
    since = 0.0
    if service == "link" and back is not None:  # the dial that brought it back
        dials = [at - end for at, kind, _ in events if kind == "dial" and at <= end + back]
        since = max(dials[-1], 0.0) if dials else 0.0
    return back, since


def write_summary(out, meta, rows, rules, recoveries, startup):
    passed = all(r[1] for r in rules)
    parts = {"modem": "the modem and its link", "gps": "the positioning receiver", "web": "the web request files"}
    loaded = ["the serial ports, boards and inputs"] + [t for k, t in parts.items() if k in meta["features"]]
    left = [t for k, t in parts.items() if k not in meta["features"]]
    lines = [f"# Soak run: {meta['minutes']:g} min, {meta['build']} build: "
             f"{'PASSED' if passed else 'FAILED'}", "",
             "Under load and faults: " + ", ".join(loaded) + "."
             + (" Left out of this run: " + ", ".join(left) + "." if left else ""), ""]
    lines += ["| Rule | Result | Figures |", "| --- | --- | --- |"]
    lines += [f"| {n} | {'pass' if p else '**FAIL**'} | {d} |" for n, p, d in rules]
    if startup is not None:
        off = (startup - STARTUP_SLEEPS_S) / STARTUP_SLEEPS_S
        lines += ["", f"Start-up: `InitializeSDK` took {startup:.3f} s from call to return; the sleeps "
                  f"its sequence requires add up to {STARTUP_SLEEPS_S:.1f} s ({off:+.1%}; goal within "
                  f"{STARTUP_GOAL:.0%}: {'met' if abs(off) <= STARTUP_GOAL else 'missed'})."]
    # At a glance: the slowest return of each service after each kind of fault.
    worst = {}
    for title, s, e, backs in recoveries:
        entry = worst.setdefault(title, {"times": 0, "services": {}})
        entry["times"] += 1
        for svc, b, since, lim, ok in backs:
            svc = "its serial ports" if svc.startswith("uart") else svc
            slowest = entry["services"].get(svc)
            key = float("inf") if b is None else b - since
            if slowest is None or key > slowest[0]:
                entry["services"][svc] = (key, lim)
    lines += ["", "## Service back, the slowest of each fault", "",
              "| Fault | Times applied | Slowest service back (s), limit |", "| --- | --- | --- |"]
    for title, entry in worst.items():
        text = ", ".join(f"{svc} {'never' if t == float('inf') else f'{t:.1f}'} (≤{lim})"
                         for svc, (t, lim) in entry["services"].items()) or "nothing lost"
        lines.append(f"| {title} | {entry['times']} | {text} |")
    lines += ["", "The link's times count from the dial request that brought it back.", "",
              "## Each fault", "",
              "| Fault | From (min) | Held (s) | Service back after (s), limit |",
              "| --- | --- | --- | --- |"]
    for title, s, e, backs in recoveries:
        text = ", ".join(
            f"{svc} {'never' if b is None else f'{b:.1f}'}"
            + (f" (dial at {since:.1f}, up {b - since:.1f} after it, ≤{lim})" if since else f" (≤{lim})")
            + ("" if ok else " **late**") for svc, b, since, lim, ok in backs) or "-"
        lines.append(f"| {title} | {s / 60:.2f} | {e - s:.0f} | {text} |")
    if rows:
        cpu = [float(r["cpu_pct"]) for r in rows if r["cpu_pct"]]
        sim = [float(r["sim_cpu_pct"]) for r in rows if r["sim_cpu_pct"]]
        span = float(rows[-1]["time_s"]) - float(rows[0]["time_s"])
        sent = sum(int(r[f"p{p}_sent"]) for r in rows for p in PORTS)
        received = sum(int(r[f"p{p}_received"]) for r in rows for p in PORTS)
        lines += ["", "## Load", "",
                  f"- {len(rows)} samples of 10 s; 12 serial ports both ways: {sent} bytes sent, "
                  f"{received} received ({sent / max(span, 1):.0f} B/s each way).",
                  f"- CPU of the SDK process: mean {sum(cpu) / max(len(cpu), 1):.1f}%, "
                  f"peak {max(cpu, default=0):.1f}% of one core; fsusim mean "
                  f"{sum(sim) / max(len(sim), 1):.1f}%.",
                  f"- The /tmp full fault: {'a tmpfs of 16 MiB in a private mount namespace, filled to its last byte' if meta['tmp_full'] == 'yes' else 'not run: no private mount namespace could be made'}."]
    lines += ["", "![memory, CPU, throughput and faults over time](soak.png)", ""]
    with open(os.path.join(out, "summary.md"), "w") as f:
        f.write("\n".join(lines))


# Services shown in the picture's lower lane, each with the services of the application it groups.
OUTAGE_ROWS = [("serial ports out", [f"uart{p}" for p in PORTS]), ("inputs stale", ["inputs"]),
               ("SDK log stuck", ["log"]), ("web unanswered", ["web"]), ("modem figures stale", ["modem"]),
               ("link down", ["link"]), ("position stale", ["position"])]


def outages(events, services):
    """The periods (from, to) in which any of `services` was lost, from its last good moment
    to the moment it was back."""
    periods, open_since = [], {}
    for at, kind, fields in events:
        svc = fields.get("service")
        if svc not in services:
            continue
        if kind == "down":
            open_since[svc] = fields["last_ok"]
        elif kind == "up" and svc in open_since:
            periods.append((open_since.pop(svc), at))
    end = max((at for at, _, _ in events), default=0)
    periods += [(since, end) for since in open_since.values()]
    return periods


def plot(out, rows, applied, by_key, events):
    if not rows:
        return
    keys = list(dict.fromkeys(k for k, _, _, _ in applied))
    with open(os.path.join(out, "plot.dat"), "w") as f:
        f.write("# minutes rss_mb cpu sim_cpu sent_Bps received_Bps bad_or_lost reading_age_s fds threads\n")
        for r in rows:
            sent = sum(int(r[f"p{p}_sent"]) for p in PORTS) / SAMPLE_S
            received = sum(int(r[f"p{p}_received"]) for p in PORTS) / SAMPLE_S
            bad = sum(int(r[f"p{p}_bad"]) + int(r[f"p{p}_lost"]) for p in PORTS)
            f.write(f"{float(r['time_s']) / 60:.3f} {int(r['rss_kb']) / 1024:.3f} "
                    f"{r['cpu_pct'] or 'NaN'} {r['sim_cpu_pct'] or 'NaN'} {sent:.0f} {received:.0f} {bad} "
                    f"{r['reading_age_s'] or 'NaN'} {r['fds']} {r['threads']}\n")
    lanes = [title for title, services in OUTAGE_ROWS
             if any(kind in ("up", "down") and fields.get("service") in services for _, kind, fields in events)]
    with open(os.path.join(out, "faults.dat"), "w") as f:
        for k, title, s, e in applied:
            f.write(f"{s / 60:.3f} {max(e - s, 3) / 60:.3f} {len(lanes) + 1 + keys.index(k)}\n")
    with open(os.path.join(out, "outages.dat"), "w") as f:
        for title, services in OUTAGE_ROWS:
            if title in lanes:
                for s, e in outages(events, services):
                    f.write(f"{s / 60:.3f} {max(e - s, 1) / 60:.3f} {len(lanes) - lanes.index(title)}\n")
    end = float(rows[-1]["time_s"]) / 60
    peak_mb = max(int(r["rss_kb"]) for r in rows) / 1024
    peak_count = max(max(int(r["fds"]), int(r["threads"])) for r in rows)
    peak_bps = max(sum(int(r[f"p{p}_sent"]) for p in PORTS) for r in rows) / SAMPLE_S
    shade = "\n".join(f"set object {i + 1} rect from {s / 60:.3f}, graph 0 to {max(e, s + 3) / 60:.3f}, "
                      "graph 1 fc rgb '#ffd8a8' fs solid 0.6 noborder behind"
                      for i, (_, _, s, e) in enumerate(applied))
    ytics = ", ".join([f"\"{by_key[k].title}\" {len(lanes) + 1 + i}" for i, k in enumerate(keys)]
                      + [f"\"{t}\" {len(lanes) - i}" for i, t in enumerate(lanes)])
    script = f"""
set terminal pngcairo size 1400,1300 font 'DejaVu Sans,10'
set output '{out}/soak.png'
set multiplot layout 4,1 margins 0.2,0.95,0.06,0.96 spacing 0,0.03
set xrange [0:{end:.3f}]
set grid
set key top right opaque
{shade}
set title 'Soak run: memory, CPU, serial throughput and faults over one time axis (shaded: a fault is applied)'
set ylabel 'resident MiB'
set yrange [0:{peak_mb * 1.35:.2f}]
set y2label 'count'
set y2range [0:{peak_count * 2.2:.0f}]
set y2tics
set format x ''
set key bottom right
plot '{out}/plot.dat' using 1:2 with lines lw 2 lc rgb '#1f77b4' title 'SDK process resident memory', \\
     '' using 1:9 axes x1y2 with steps lw 1 lc rgb '#9467bd' title 'open descriptors', \\
     '' using 1:10 axes x1y2 with steps lw 1 dt 2 lc rgb '#8c564b' title 'threads'
set title ''
unset y2label
unset y2tics
set key top right
set ylabel 'CPU % of a core'
set yrange [0:*]
plot '{out}/plot.dat' using 1:3 with lines lw 2 lc rgb '#d62728' title 'SDK process', \\
     '' using 1:4 with lines lw 1 lc rgb '#7f7f7f' title 'fsusim'
set ylabel 'bytes/s, 12 ports'
set yrange [0:{peak_bps * 1.6:.0f}]
set y2label 'bytes lost or out of pattern'
set y2range [0:*]
set y2tics
plot '{out}/plot.dat' using 1:5 with lines lw 2 lc rgb '#2ca02c' title 'sent', \\
     '' using 1:6 with lines lw 1 dt 2 lc rgb '#000000' title 'received', \\
     '' using 1:7 axes x1y2 with impulses lw 3 lc rgb '#d62728' title 'lost or out of pattern (per 10 s)'
unset y2label
unset y2tics
set ylabel ''
set format x '%g'
set xlabel 'minutes since the load started'
set yrange [0.3:{len(keys) + len(lanes) + 0.7}]
set ytics ({ytics})
set arrow from 0, {len(lanes) + 0.5} to {end:.3f}, {len(lanes) + 0.5} nohead lc rgb '#555555'
set key below horizontal
plot '{out}/faults.dat' using ($1+$2/2):3:($2/2):(0.3) with boxxyerror fs solid 0.8 lc rgb '#e6550d' title 'fault applied', \\
     '{out}/outages.dat' using ($1+$2/2):3:($2/2):(0.3) with boxxyerror fs solid 0.8 lc rgb '#756bb1' title 'service lost'
unset multiplot
"""
    with open(os.path.join(out, "soak.gp"), "w") as f:
        f.write(script)
    subprocess.run(["gnuplot", os.path.join(out, "soak.gp")], check=False)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    sub = parser.add_subparsers(dest="command", required=True)
    r = sub.add_parser("run")
    r.add_argument("--minutes", type=float, default=60)
    r.add_argument("--root", required=True)
    r.add_argument("--out", required=True)
    r.add_argument("--fsusim", required=True)
    r.add_argument("--app", required=True)
    r.add_argument("--build-kind", default="release")
    r.add_argument("--tmp-full", choices=("yes", "no"), default="no")
    r.add_argument("--web", action="store_true")
    r.add_argument("--modem", action="store_true")
    r.add_argument("--gps", action="store_true")
    p = sub.add_parser("report")
    p.add_argument("out")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(run(args) if args.command == "run" else report(os.path.abspath(args.out)))


if __name__ == "__main__":
    main()
