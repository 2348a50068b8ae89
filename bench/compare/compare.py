#!/usr/bin/env python3
"""foldersync side by side with Unison and rclone bisync on the same trees, in the same run.

For each tree (generated from a seed) and each tool, the same chain of scenarios:
  initial   the first run, with the tree on one side and the other side empty;
  nochange  the next run, nothing changed;
  idle      one more run, still nothing changed (the state every later run of a quiet folder
            starts from: the run before changed nothing on either side);
  change    1% of the files rewritten on the first side, 0.1% deleted on the second;
  nostate   both sides already equal (a copy that keeps the times), no state of the tool.
After every run both sides are compared file by file. Tools take turns (A B C A B C ...), so
that the noise of a busy machine hits them all alike. The floors are measured in the same run:
`cp -a` for the initial copy, a stat walk of both trees for the no-change run, and SHA-256.

Writes a markdown table (medians, ranges, ratios of foldersync to each peer).
"""
import argparse
import hashlib
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

TREES = {
    # name: (files, folders, depth, bytes per file)
    "10k": (10_000, 100, 1, 4096),
    "100k": (100_000, 1_000, 3, 1024),
    "1g": (200, 1, 1, 5 * 1024 * 1024),
    "1m": (1_000_000, 10_000, 3, 64),
    "tiny": (300, 10, 2, 1024),
}
SCENARIOS = ["initial", "nochange", "idle", "change", "nostate"]


# --- trees ------------------------------------------------------------------------------------

def folder_paths(folders, depth):
    """Folder paths `depth` levels deep, as evenly spread as the count allows."""
    if depth <= 1:
        return ["d%04d" % i for i in range(folders)]
    per = max(2, round(folders ** (1.0 / depth)))
    paths = []
    i = 0
    while len(paths) < folders:
        parts, n = [], i
        for _ in range(depth):
            parts.append("d%02d" % (n % per))
            n //= per
        paths.append("/".join(reversed(parts)))
        i += 1
    return paths


def generate(tree, path, seed):
    files, folders, depth, size = TREES[tree]
    rng = random.Random(seed)
    dirs = folder_paths(folders, depth)
    block = rng.randbytes(size + 4096)
    for i in range(files):
        d = os.path.join(path, dirs[i % len(dirs)])
        if i < len(dirs):
            os.makedirs(d, exist_ok=True)
        # Distinct contents without paying for random bytes per file.
        off = (i * 7919) % 4096
        with open(os.path.join(d, "f%06d.dat" % i), "wb") as f:
            f.write(("%08d" % i).encode() + block[off:off + size - 8])


def listing(root):
    """Relative path -> (size, sha256) of every file; folders as (-1, '')."""
    out = {}
    for dirpath, dirnames, filenames in os.walk(root):
        rel = os.path.relpath(dirpath, root)
        dirnames[:] = [d for d in dirnames if not d.startswith(".")]
        if rel != ".":
            out[rel] = (-1, "")
        for name in filenames:
            if name.startswith("."):
                continue
            p = os.path.join(dirpath, name)
            h = hashlib.sha256()
            with open(p, "rb") as f:
                while True:
                    b = f.read(1 << 20)
                    if not b:
                        break
                    h.update(b)
            out[os.path.normpath(os.path.join(rel, name))] = (os.path.getsize(p), h.hexdigest())
    return out


def identities(root):
    """Relative path -> (inode, mtime_ns): a file that was written anew changes one of them."""
    out = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in filenames:
            st = os.lstat(os.path.join(dirpath, name))
            out[os.path.join(dirpath, name)[len(root):]] = (st.st_ino, st.st_mtime_ns)
    return out


def mutate(a, b, seed):
    """Rewrites 1% of the files below a and deletes 0.1% below b (other files)."""
    rng = random.Random(seed)
    files = sorted(p for p in identities(a))
    rng.shuffle(files)
    n = len(files)
    rewrite = files[: max(1, n // 100)]
    delete = files[max(1, n // 100): max(1, n // 100) + max(1, n // 1000)]
    for rel in rewrite:
        p = a + rel
        size = os.path.getsize(p)
        with open(p, "wb") as f:
            f.write(rng.randbytes(size))
    for rel in delete:
        os.unlink(b + rel)
    return len(rewrite), len(delete)


def copy_tree(src, dst):
    subprocess.run(["cp", "-a", src, dst], check=True)


def hand_to_server(path):
    """Apache serves as nobody when we run as root: the server's files must be its own."""
    if os.getuid() == 0:
        subprocess.run(["chown", "-R", "nobody:nogroup", path], check=True)


# --- running ----------------------------------------------------------------------------------

TIME = "/usr/bin/time"


def measure(cmd, env=None, ok=(0,)):
    """Runs cmd; wall seconds, CPU seconds and peak resident MiB of the process.

    The peak is taken by /usr/bin/time where it is installed: a process forked from this one
    starts with this script's resident memory, which the kernel counts in the child's peak even
    after the exec, so the peak that wait4 gives is never below this script's own size."""
    peak_file = None
    if os.access(TIME, os.X_OK):
        peak_file = "/tmp/compare-peak-%d" % os.getpid()
        cmd = [TIME, "-q", "-f", "%M", "-o", peak_file] + list(cmd)
    start = time.monotonic()
    proc = subprocess.Popen(cmd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            stdin=subprocess.DEVNULL)
    out = proc.stdout.read()
    proc.stdout.close()
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    wall = time.monotonic() - start
    if proc.returncode not in ok:
        sys.stderr.write(out.decode(errors="replace")[-4000:])
        raise RuntimeError("%s exited with %d" % (" ".join(cmd), proc.returncode))
    rss = usage.ru_maxrss / 1024.0
    if peak_file:
        with open(peak_file) as f:
            rss = int(f.read().split()[-1]) / 1024.0
        os.unlink(peak_file)
    return {"wall": wall, "cpu": usage.ru_utime + usage.ru_stime, "rss": rss}


class Tool:
    name = ""

    def __init__(self, work):
        self.work = work

    def reset_state(self):
        shutil.rmtree(self.state(), ignore_errors=True)
        os.makedirs(self.state())

    def state(self):
        return os.path.join(self.work, "state-" + self.name.replace(" ", "-"))

    def server_side(self, base):
        return os.path.join(base, "b")

    def prepare_server(self, path):
        pass


class FolderSync(Tool):
    def __init__(self, work, program, dav=None):
        super().__init__(work)
        self.program = program
        self.dav = dav  # (url, document root) or None
        self.name = "foldersync (WebDAV)" if dav else "foldersync"

    def server_side(self, base):
        if not self.dav:
            return os.path.join(base, "b")
        return os.path.join(self.dav[1], "b")

    def prepare_server(self, path):
        if self.dav:
            hand_to_server(path)

    def env(self):
        s = self.state()
        env = dict(os.environ)
        env.update(HOME=s, XDG_DATA_HOME=s + "/data", XDG_STATE_HOME=s + "/xdg-state",
                   XDG_CONFIG_HOME=s + "/config", XDG_CACHE_HOME=s + "/cache")
        return env

    def run(self, a, b, first):
        remote = self.dav[0] + "/b" if self.dav else b
        return measure([self.program, "--db", self.state() + "/sync.db", "sync", a, remote],
                       env=self.env())


class Unison(Tool):
    name = "unison"

    def run(self, a, b, first):
        env = dict(os.environ, UNISON=self.state())
        return measure(["unison", a, b, "-batch", "-auto", "-times", "-ui", "text"], env=env)


class Rclone(Tool):
    name = "rclone bisync"

    def run(self, a, b, first):
        cmd = ["rclone", "bisync", a, b, "--workdir", self.state() + "/bisync",
               "--config", self.state() + "/rclone.conf", "-q"]
        if first:
            cmd.append("--resync")
        return measure(cmd)


def verify(a, b, what):
    la, lb = listing(a), listing(b)
    if la != lb:
        only_a = sorted(set(la) - set(lb))[:5]
        only_b = sorted(set(lb) - set(la))[:5]
        differ = sorted(k for k in set(la) & set(lb) if la[k] != lb[k])[:5]
        raise RuntimeError("%s: sides differ: only first %s, only second %s, differ %s"
                           % (what, only_a, only_b, differ))
    return sum(1 for v in la.values() if v[0] >= 0)


def chain(tool, master, base, seed, rep):
    """The four scenarios for one tool; a dict scenario -> measurement."""
    a = os.path.join(base, "a")
    b = tool.server_side(base)
    for p in (a, b):
        shutil.rmtree(p, ignore_errors=True)
    copy_tree(master, a)
    os.makedirs(b)
    tool.prepare_server(b)
    tool.reset_state()
    files = len(identities(a))
    results = {}

    results["initial"] = tool.run(a, b, True)
    if verify(a, b, tool.name + " initial") != files:
        raise RuntimeError(tool.name + ": files missing after the initial run")

    results["nochange"] = tool.run(a, b, False)
    verify(a, b, tool.name + " nochange")
    results["idle"] = tool.run(a, b, False)
    verify(a, b, tool.name + " idle")

    # Edits come later than the run that recorded the files: a same-size rewrite within the
    # same second as the copy is invisible to a comparison of whole-second times.
    time.sleep(1.1)
    mutate(a, b, seed * 1000 + rep)
    tool.prepare_server(b)
    results["change"] = tool.run(a, b, False)
    verify(a, b, tool.name + " change")

    shutil.rmtree(b)
    copy_tree(a, b)
    tool.prepare_server(b)
    tool.reset_state()
    before = {**identities(a), **{"b" + k: v for k, v in identities(b).items()}}
    results["nostate"] = tool.run(a, b, True)
    verify(a, b, tool.name + " nostate")
    after = {**identities(a), **{"b" + k: v for k, v in identities(b).items()}}
    results["nostate"]["rewritten"] = sum(1 for k, v in before.items() if after.get(k) != v)

    for p in (a, b):
        shutil.rmtree(p, ignore_errors=True)
    return results


def floors(master, base):
    out = {}
    dst = os.path.join(base, "floor")
    shutil.rmtree(dst, ignore_errors=True)
    out["initial"] = measure(["cp", "-a", master, dst])
    out["nochange"] = measure(["find", master, dst, "-printf", "%s %T@\\n"])
    shutil.rmtree(dst)
    # SHA-256 throughput over the tree's bytes, as OpenSSL does it.
    start, total = time.monotonic(), 0
    for dirpath, _, filenames in os.walk(master):
        for name in filenames:
            with open(os.path.join(dirpath, name), "rb") as f:
                h = hashlib.sha256()
                while True:
                    b = f.read(1 << 20)
                    if not b:
                        break
                    h.update(b)
                    total += len(b)
    out["hash"] = {"wall": time.monotonic() - start, "bytes": total}
    return out


# --- report -----------------------------------------------------------------------------------

def med(values):
    return statistics.median(values) if values else float("nan")


def cell(values, fmt):
    if not values:
        return "-"
    if len(values) == 1:
        return fmt % values[0]
    return (fmt + " (" + fmt + "–" + fmt + ")") % (med(values), min(values), max(values))


def report(tree, root_kind, reps, runs, floor_runs, out):
    ours = "foldersync"
    peers = ["unison", "rclone bisync"]
    out.append("\n### %s files tree, %s, %d rounds\n" % (tree, root_kind, reps))
    out.append("| scenario | tool | wall s | CPU s | peak MiB | ours / tool (wall) |")
    out.append("|---|---|---|---|---|---|")
    for sc in SCENARIOS:
        for tool, per in runs.items():
            r = per.get(sc, [])
            walls = [x["wall"] for x in r]
            ratio = ""
            if not tool.startswith(ours) and walls and runs.get(ours, {}).get(sc):
                ratio = "%.2f" % (med([x["wall"] for x in runs[ours][sc]]) / med(walls))
            extra = ""
            if sc == "nostate" and r:
                extra = " (%d rewritten)" % max(x.get("rewritten", 0) for x in r)
            out.append("| %s | %s%s | %s | %s | %s | %s |" % (
                sc, tool, extra, cell(walls, "%.2f"), cell([x["cpu"] for x in r], "%.2f"),
                cell([x["rss"] for x in r], "%.0f"), ratio))
        if sc in ("initial", "nochange", "idle") and floor_runs.get(
                "nochange" if sc == "idle" else sc):
            f = floor_runs["nochange" if sc == "idle" else sc]
            label = "cp -a" if sc == "initial" else "stat walk of both trees"
            ratio = ""
            if runs.get(ours, {}).get(sc):
                ratio = "%.2f" % (med([x["wall"] for x in runs[ours][sc]]) /
                                  med([x["wall"] for x in f]))
            out.append("| %s | floor: %s | %s | %s | %s | %s |" % (
                sc, label, cell([x["wall"] for x in f], "%.2f"),
                cell([x["cpu"] for x in f], "%.2f"), cell([x["rss"] for x in f], "%.0f"), ratio))
    if floor_runs.get("hash"):
        rates = [x["bytes"] / x["wall"] / 1e6 for x in floor_runs["hash"]]
        out.append("\nSHA-256 floor (Python hashlib, OpenSSL): %s MB/s\n" % cell(rates, "%.0f"))
    # Best peer per scenario.
    lines = []
    for sc in SCENARIOS:
        peer_meds = {p: med([x["wall"] for x in runs[p][sc]]) for p in peers
                     if runs.get(p, {}).get(sc)}
        if not peer_meds or not runs.get(ours, {}).get(sc):
            continue
        best = min(peer_meds, key=peer_meds.get)
        mine = med([x["wall"] for x in runs[ours][sc]])
        mem_best = med([x["rss"] for x in runs[best][sc]])
        mem_mine = med([x["rss"] for x in runs[ours][sc]])
        lines.append("- %s: foldersync %.2f s vs best peer (%s) %.2f s: ratio %.2f; memory "
                     "%.0f vs %.0f MiB: ratio %.2f" % (sc, mine, best, peer_meds[best],
                                                       mine / peer_meds[best], mem_mine,
                                                       mem_best, mem_mine / mem_best))
    out.extend([""] + lines)


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--trees", default="10k,100k,1g", help="comma list of " + ",".join(TREES))
    ap.add_argument("--tools", default="foldersync,foldersync-webdav,unison,rclone")
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--root", default="/dev/shm/fscompare", help="where the trees go")
    ap.add_argument("--build", default=None, help="build dir with Host/foldersync and "
                    "bench/dav_server (default: builds build/qt6-release)")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--out", default=None, help="markdown file to write (default: stdout)")
    args = ap.parse_args()

    repo = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    build = args.build
    if not build:
        build = subprocess.run([repo + "/scripts/build", "--qt", "6", "--release"],
                               check=True, capture_output=True, text=True).stdout.split()[-1]
    program = os.path.join(build, "Host/foldersync")
    wanted = args.tools.split(",")
    for t, exe in (("unison", "unison"), ("rclone", "rclone")):
        if t in wanted and not shutil.which(exe):
            sys.exit("%s is missing: apt-get install %s" % (exe, exe))

    shutil.rmtree(args.root, ignore_errors=True)
    os.makedirs(args.root)
    dav = None
    dav_proc = None
    if "foldersync-webdav" in wanted:
        dav_proc = subprocess.Popen([os.path.join(build, "bench/dav_server"), args.root],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        url, docroot = dav_proc.stdout.readline().split()
        dav = (url, docroot)

    tools = []
    for t in wanted:
        if t == "foldersync":
            tools.append(FolderSync(args.root, program))
        elif t == "foldersync-webdav":
            tools.append(FolderSync(args.root, program, dav))
        elif t == "unison":
            tools.append(Unison(args.root))
        elif t == "rclone":
            tools.append(Rclone(args.root))

    out = ["# foldersync side by side with Unison and rclone bisync", "",
           "Made by `bench/compare/compare.py %s` on %s (%s, %d cores)." % (
               " ".join(sys.argv[1:]), time.strftime("%Y-%m-%d %H:%M"), os.uname().nodename,
               os.cpu_count()),
           "Wall and CPU time in seconds, peak resident memory of the tool's process in MiB: "
           "median (min–max) over the rounds. The WebDAV row's server (Apache) is not counted.",
           "`nostate` counts the files a run wrote anew although both sides were equal."]
    try:
        for tree in args.trees.split(","):
            master = os.path.join(args.root, "master-" + tree)
            print("generating %s ..." % tree, flush=True)
            generate(tree, master, args.seed)
            runs = {t.name: {sc: [] for sc in SCENARIOS} for t in tools}
            floor_runs = {"initial": [], "nochange": [], "hash": []}
            for rep in range(args.rounds):
                f = floors(master, args.root)
                for k in floor_runs:
                    floor_runs[k].append(f[k])
                for tool in tools:
                    print("  round %d: %s" % (rep + 1, tool.name), flush=True)
                    res = chain(tool, master, args.root, args.seed, rep)
                    for sc, m in res.items():
                        runs[tool.name][sc].append(m)
                        print("    %-9s %7.2f s  cpu %7.2f s  %6.0f MiB" % (
                            sc, m["wall"], m["cpu"], m["rss"]), flush=True)
            report(tree, "tmpfs" if args.root.startswith("/dev/shm") else "disk", args.rounds,
                   runs, floor_runs, out)
            shutil.rmtree(master)
    finally:
        if dav_proc:
            dav_proc.stdin.close()
            dav_proc.wait()
    text = "\n".join(out) + "\n"
    if args.out:
        with open(args.out, "w") as f:
            f.write(text)
    print(text)


if __name__ == "__main__":
    main()
