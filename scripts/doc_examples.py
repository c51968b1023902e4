#!/usr/bin/env python3
"""Runs the examples of README.md and docs/*.md, so that a page cannot drift from the code.

Every fenced block in sh, bash, c, cpp or cmake carries a mark in its info string:

  ```c run [FSUSIM OPTIONS]   compiled against the SDK of the build (the archive, as docs/api.md
                              links it, with -Wall -Wextra -Werror) and run on a fresh simulated
                              board: fsusim run [FSUSIM OPTIONS] -- ./snippet; it must exit 0
  ```c build=REASON           compiled and linked only
  ```sh run [board=FIXTURE]   each line run in turn by bash in a fresh folder; each must exit 0
  ```sh skip=REASON           not run (any language); REASON is a key of SKIP_REASONS below

A ```text output block right after a run block holds what the block prints: each of its lines
must match a line of the output, in order ("..." matches any text; a line may carry more text
around what is shown). An unmarked block, an unknown reason or an output block without a run
block fails, so every new example is either run or says here why not.

Shell lines run as a reader types them, with the build folder's programs first on the PATH and
`build` a link to the build folder. `/tmp/unit` names a fresh root of the block's own folder, and
`myapp` (also `./myapp`) an application that checks it sees the board. A line that starts
`fsusim up` keeps its board up in the background (a reader's second terminal) until the block
ends. board=FIXTURE brings up what the block's lines assume in /tmp/unit first (FIXTURES below).

  python3 scripts/doc_examples.py BUILD_DIR [--jobs N] [--only TEXT]   run (ctest -L docs)
  python3 scripts/doc_examples.py --list                                the blocks and their marks
"""
import argparse
import concurrent.futures
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent

# Why a block is not run: the one place that says so.
SKIP_REASONS = {
    "yours": "names the reader's own scenario files or application (tests/*.yaml, ./myapp --config); "
             "the examples' scenarios run as ctest tests (label scenario)",
    "setup": "installs Debian packages (root and a network) and builds for minutes; CI runs scripts/test.sh itself",
    "stage": "builds a tree or runs a CI stage (minutes); CI runs each stage itself",
    "install": "installs under /opt/fsu (root); scripts/check_install.sh does the same in a temporary prefix "
               "in CI's werror stage and builds the examples both ways",
    "person": "a person types into a terminal (screen, minicom, CTRL+C)",
    "device": "runs on the unit itself; on a PC the program stops at once with \"fsu: no board here\"",
    "soak": "runs the soak campaign (3 to 60 minutes); CI's soak stage runs it",
    "watchdog": "waits out the watchdog's 60 s; examples/watchdog shows the same on fsusim in the e2e suite",
}

# What board=FIXTURE brings up in /tmp/unit before the block's lines run.
FIXTURES = {
    "board": "a board kept up (fsusim up)",
    "web": "a board kept up with `benchkit web` running on it, its first report written",
    "dialled": "a board kept up on which examples/dial has dialled and seen the link up",
}

CHECKED = {"sh", "bash", "c", "cpp", "cmake"}
LINE_TIMEOUT = 60


@dataclass
class Block:
    page: str
    line: int
    lang: str
    marks: list
    body: list
    output: list = field(default_factory=list)

    @property
    def where(self):
        return f"{self.page}:{self.line}"

    @property
    def fixture(self):
        """What board=FIXTURE names; a bare "board" is a board kept up."""
        name = self.mark("board")
        return "board" if name == "" else name

    def mark(self, key):
        for m in self.marks:
            if m == key:
                return ""
            if m.startswith(key + "="):
                return m[len(key) + 1:]
        return None


def pages():
    return [REPO / "README.md"] + sorted((REPO / "docs").glob("*.md"))


def read_blocks(errors):
    blocks = []
    for page in pages():
        rel = str(page.relative_to(REPO))
        lines = page.read_text(encoding="utf-8").splitlines()
        i, last_run = 0, None
        while i < len(lines):
            m = re.match(r"^```(\S*)\s*(.*)$", lines[i])
            if not m:
                i += 1
                continue
            lang, marks, start = m.group(1), shlex.split(m.group(2)), i + 1
            j = i + 1
            while j < len(lines) and not lines[j].startswith("```"):
                j += 1
            body = lines[i + 1:j]
            i = j + 1
            if lang == "text" and marks[:1] == ["output"]:
                if last_run is None:
                    errors.append(f"{rel}:{start}: an output block follows no run block")
                else:
                    last_run.output = body
                last_run = None
                continue
            last_run = None
            if lang not in CHECKED:
                continue
            b = Block(rel, start, lang, marks, body)
            skip, build = b.mark("skip"), b.mark("build")
            if skip is not None or build is not None:
                if (skip if skip is not None else build) not in SKIP_REASONS:
                    errors.append(f"{b.where}: unknown reason {skip or build!r} (reasons: {', '.join(SKIP_REASONS)})")
                if build is not None and lang not in ("c", "cpp"):
                    errors.append(f"{b.where}: build= is for C and C++ blocks")
            elif marks[:1] == ["run"] and lang in ("sh", "bash", "c", "cpp"):
                if b.fixture is not None and b.fixture not in FIXTURES:
                    errors.append(f"{b.where}: unknown fixture {b.fixture!r} ({', '.join(FIXTURES)})")
                last_run = b
            else:
                errors.append(f"{b.where}: a ```{lang} block needs a mark: run, or skip=REASON ({', '.join(SKIP_REASONS)})")
            blocks.append(b)
    return blocks


def run_bounded(cmd, **kw):
    """Runs a command in a process group of its own; on a time-out the whole group is killed, so
    that no board or program of a hung line outlives the test."""
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, start_new_session=True, **kw)
    try:
        out, err = proc.communicate(timeout=LINE_TIMEOUT)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        raise RuntimeError(f"{' '.join(cmd)}: did not end within {LINE_TIMEOUT} s")
    return proc.returncode, out, err


def estimate(block):
    """Rough seconds a block takes: an SDK start is at least 6 s, a dial 11 s more."""
    fixture = {"web": 30, "dialled": 25, "board": 2}.get(block.fixture, 0)
    text = "\n".join(block.body)
    starts = len(re.findall(r"benchkit\b|examples/|cmake --build", text)) + (block.lang in ("c", "cpp"))
    return fixture + 10 * starts + 12 * len(re.findall(r"online|DialDial", text))


def matches(expected, actual):
    """Each expected line, "..." a wildcard, found in order within the actual lines."""
    lines, k = actual.splitlines(), 0
    for want in (w.strip() for w in expected):
        if not want:
            continue
        pattern = re.compile(".*".join(re.escape(part) for part in want.split("...")))
        while k < len(lines) and not pattern.search(lines[k]):
            k += 1
        if k == len(lines):
            return f"expected output line not found (in order): {want}"
        k += 1
    return None


class Runner:
    def __init__(self, build, cc, library, include):
        self.build = Path(build).resolve()
        self.cc, self.library, self.include = cc, Path(library).resolve(), Path(include).resolve()
        self.fsusim = str(self.build / "fsusim")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("FSU_")}

    def shell_env(self, work):
        env = dict(self.env)
        env["PATH"] = f"{self.build}:{self.build}/tools/fsuctl:{work}:{env.get('PATH', '/usr/bin:/bin')}"
        return env

    def prepare(self, work):
        (work / "build").symlink_to(self.build)
        app = work / "myapp"
        app.write_text('#!/bin/sh\n# Stands for the reader\'s application: it sees the board that fsusim made.\n'
                       '[ -n "$FSU_ROOT" ] && [ -e "$FSU_ROOT/etc/config/dtm" ] || { echo "myapp: no board" >&2; exit 1; }\n'
                       'echo "myapp: board at $FSU_ROOT, args: $*"\n')
        app.chmod(0o755)

    def wait_for(self, what, test, seconds, proc=None):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if test():
                return
            if proc is not None and proc.poll() is not None:
                raise RuntimeError(f"{what}: the process ended with status {proc.returncode}")
            time.sleep(0.1)
        raise RuntimeError(f"{what}: not within {seconds} s")

    def board_up(self, root, args, env, log):
        proc = subprocess.Popen([self.fsusim, "up", "--root", str(root)] + args, env=env, stdin=subprocess.DEVNULL,
                                stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
        state = root / "sim" / "state"
        self.wait_for(f"fsusim up --root {root}",
                      lambda: state.exists() and state.read_text(errors="replace").startswith("board up"), 20, proc)
        return proc

    def fixture(self, name, work, env, log, procs):
        root = work / "unit"
        procs.append(self.board_up(root, [], env, log))
        board_env = dict(env, FSU_ROOT=str(root), PATH=f"{root}/bin:{env['PATH']}")
        if name == "web":
            procs.append(subprocess.Popen([str(self.build / "benchkit"), "web"], env=board_env, cwd=work,
                                          stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                                          start_new_session=True))
            self.wait_for("benchkit web", lambda: (root / "tmp" / "NetModuleInfo").exists(), 40, procs[-1])
        elif name == "dialled":
            (work / "dial.in").write_bytes(b"dial\nonline 40\n")
            with open(work / "dial.in", "rb") as requests:
                _, stdout, _ = run_bounded([str(self.build / "examples" / "dial" / "dial")], env=board_env, cwd=work,
                                           stdin=requests, stderr=subprocess.STDOUT)
            if b"online reached" not in stdout:
                raise RuntimeError("fixture dialled: examples/dial did not see the link up:\n" + stdout.decode(errors="replace")[-2000:])

    @staticmethod
    def stop(procs):
        for p in reversed(procs):
            if p.poll() is None:
                os.killpg(p.pid, signal.SIGTERM)
                try:
                    p.wait(10)
                except subprocess.TimeoutExpired:
                    os.killpg(p.pid, signal.SIGKILL)
                    p.wait()

    def run_shell(self, block, work):
        env = self.shell_env(work)
        procs, out = [], []
        log = open(work / "background.log", "wb")
        try:
            if block.fixture:
                self.fixture(block.fixture, work, env, log, procs)
            for text in block.body:
                line = text.replace("/tmp/unit", str(work / "unit")).strip()
                if not line or line.startswith("#"):
                    continue
                words = shlex.split(line, comments=True)
                if words[:2] in (["fsusim", "up"], ["build/fsusim", "up"]):
                    root = Path(words[words.index("--root") + 1]) if "--root" in words else None
                    if root is None:
                        raise RuntimeError(f"{line}: a board kept up needs --root")
                    procs.append(self.board_up(root if root.is_absolute() else work / root, words[words.index("--root") + 2:], env, log))
                    continue
                started = time.monotonic()
                status, stdout, _ = run_bounded(["bash", "-c", line], cwd=work, env=env, stdin=subprocess.DEVNULL,
                                                stderr=subprocess.STDOUT)
                text_out = stdout.decode("utf-8", errors="replace")
                out.append(text_out)
                if status != 0:
                    raise RuntimeError(f"{text.strip()}\n  exited {status} after {time.monotonic() - started:.1f} s:\n{text_out[-3000:]}")
        finally:
            self.stop(procs)
            log.close()
        return "".join(out)

    def compile(self, block, work):
        source = work / ("snippet.c" if block.lang == "c" else "snippet.cpp")
        source.write_text("\n".join(block.body) + "\n", encoding="utf-8")
        compiler = self.cc if block.lang == "c" else os.environ.get("CXX", "c++")
        std = "-std=c11" if block.lang == "c" else "-std=c++17"
        cmd = [compiler, std, "-D_DEFAULT_SOURCE", "-Wall", "-Wextra", "-Werror", "-I", str(self.include),
               str(source), str(self.library), "-lstdc++", "-lm", "-pthread", "-o", str(work / "snippet")]
        done = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        if done.returncode != 0:
            raise RuntimeError("does not compile:\n" + done.stdout.decode(errors="replace")[-3000:])

    def run_snippet(self, block, work):
        self.compile(block, work)
        if block.mark("build") is not None:
            return ""
        options = block.marks[1:]
        status, stdout, stderr = run_bounded([self.fsusim, "run"] + options + ["--", "./snippet"], cwd=work,
                                             env=self.env, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        out = stdout.decode("utf-8", errors="replace")
        if status != 0:
            raise RuntimeError(f"exited {status}:\n{out[-2000:]}\n{stderr.decode(errors='replace')[-1000:]}")
        return out

    def check(self, block):
        started = time.monotonic()
        work = Path(tempfile.mkdtemp(prefix="fsu-doc-"))
        try:
            self.prepare(work)
            out = self.run_shell(block, work) if block.lang in ("sh", "bash") else self.run_snippet(block, work)
            problem = matches(block.output, out)
            if problem:
                raise RuntimeError(f"{problem}\n--- it printed:\n{out[-3000:]}")
            return None, time.monotonic() - started
        except Exception as e:  # a block's failure is reported, the others still run
            return str(e), time.monotonic() - started
        finally:
            shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", nargs="?")
    parser.add_argument("--cc", default=os.environ.get("CC", "cc"))
    parser.add_argument("--library", help="libfsusdk.a (default BUILD/libfsusdk.a)")
    parser.add_argument("--jobs", type=int, default=6)
    parser.add_argument("--only", help="run only the blocks whose page:line contains this")
    parser.add_argument("--list", action="store_true")
    args = parser.parse_args()

    errors = []
    blocks = read_blocks(errors)
    if args.list:
        for e in errors:
            print(f"doc_examples: {e}")
        for b in blocks:
            reason = b.mark("skip") or b.mark("build")
            print(f"{b.where:24} {b.lang:5} {' '.join(b.marks):32} {SKIP_REASONS.get(reason, '')}")
        return 1 if errors else 0
    for e in errors:
        print(f"doc_examples: {e}")
    if not args.build:
        parser.error("BUILD_DIR is needed to run the examples")
    runner = Runner(args.build, args.cc, args.library or Path(args.build) / "libfsusdk.a", REPO / "include")

    todo = [b for b in blocks if b.mark("skip") is None and (not args.only or args.only in b.where)]
    started = time.monotonic()
    failed = 0
    # Longest first, so that the whole run takes little more than its longest block.
    todo.sort(key=lambda b: -estimate(b))
    with concurrent.futures.ThreadPoolExecutor(max_workers=args.jobs) as pool:
        for b, (problem, took) in zip(todo, pool.map(runner.check, todo)):
            what = "built" if b.mark("build") is not None else "ran"
            print(f"{'FAIL' if problem else 'ok  '} {b.where:24} {b.lang:4} {what} in {took:4.1f} s")
            if problem:
                failed += 1
                print("     " + problem.replace("\n", "\n     "))
    lines = sum(1 for b in todo if b.lang in ("sh", "bash") for t in b.body if t.strip() and not t.strip().startswith("#"))
    snippets = sum(1 for b in todo if b.lang in ("c", "cpp") and b.mark("build") is None)
    built = sum(1 for b in todo if b.mark("build") is not None)
    skipped = [b for b in blocks if b.mark("skip") is not None]
    print(f"doc_examples: {snippets} C snippets built and run, {built} built only, {lines} shell lines run in "
          f"{len(todo) - snippets - built} blocks, {len(skipped)} blocks not run "
          f"({', '.join(sorted({b.mark('skip') for b in skipped}))}: see SKIP_REASONS), "
          f"{time.monotonic() - started:.0f} s; {failed} failed, {len(errors)} marking errors")
    return 1 if failed or errors else 0


if __name__ == "__main__":
    sys.exit(main())
