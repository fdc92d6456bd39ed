#!/usr/bin/env python3
"""Tables of bench/run.sh from the files its runs left in one directory.

Layout of the directory: one sub-directory per build (its label), holding
  mq-*.json   mergeque_bench runs (Google Benchmark JSON, repetitions interleaved)
  e2e-*.json  e2e_bench runs
  heap.txt    heap_probe output
  cg-road-<pct>.out / .records   callgrind of the road and the records fed
  cg-mq.out / .writes            callgrind of the queue and its peers at 64K uniform keys
Usage: report.py DIR LABEL [LABEL...]   (the first label is the reference of a before/after)
"""
import glob
import json
import os
import re
import statistics
import subprocess
import sys

PEERS = [("BM_BoostMultiIndex", "Boost.MI"), ("BM_BoostMultiIndexPool", "Boost.MI+pool"),
         ("BM_StdMapList", "umap+list")]
QUEUE = "BM_MergeQue"
WORKLOADS = [(k, s) for k in (1024, 65536, 1048576) for s in (1, 0)]


def workload_name(keys, skewed):
    size = {1024: "1K", 65536: "64K", 1048576: "1M"}[keys]
    return f"{size} {'skewed' if skewed else 'uniform'}"


def load_runs(d, prefix):
    """{run_name: [[value per repetition] per file]} of the iteration runs."""
    runs = {}
    for path in sorted(glob.glob(os.path.join(d, prefix + "-*.json"))):
        try:
            with open(path) as f:
                data = json.load(f)
        except (OSError, ValueError):
            continue
        per_file = {}
        for b in data.get("benchmarks", []):
            if b.get("run_type") != "iteration":
                continue
            per_file.setdefault(b["run_name"], {})[b.get("repetition_index", 0)] = b
        for name, reps in per_file.items():
            runs.setdefault(name, []).append([reps[i] for i in sorted(reps)])
    return runs


def ns_per_op(b):
    return b["ns/op"] * 1e9  # an inverted rate counter: seconds per write


def pairs(a_runs, b_runs, value):
    """Ratios value(b) / value(a) of repetitions paired by file and index."""
    out = []
    for fa, fb in zip(a_runs, b_runs):
        for ra, rb in zip(fa, fb):
            va, vb = value(ra), value(rb)
            if va > 0:
                out.append(vb / va)
    return out


def mmm(values, fmt="{:.2f}"):
    if not values:
        return "n/a"
    return "/".join(fmt.format(v) for v in (min(values), statistics.median(values), max(values)))


def flat(runs, value):
    return [value(r) for f in runs for r in f]


def mergeque_tables(d, label):
    runs = load_runs(d, "mq")
    if not runs:
        print(f"[{label}] no mergeque_bench results")
        return {}
    print(f"[{label}] merge queue against its peers: peer's time / queue's time, min/median/max over "
          "interleaved repetitions (CPU time)")
    head = f"{'workload':<12} {'queue ns/write':>16}" + "".join(f" {n + '/queue':>20}" for _, n in PEERS)
    print(head)
    summary = {}
    for keys, skewed in WORKLOADS:
        args = f"/keys:{keys}/skewed:{skewed}"
        q = runs.get(QUEUE + args)
        if not q:
            continue
        qns = flat(q, ns_per_op)
        row = f"{workload_name(keys, skewed):<12} {statistics.median(qns):>16.1f}"
        summary[(keys, skewed)] = {"queue_ns": statistics.median(qns)}
        for bench, name in PEERS:
            p = runs.get(bench + args)
            ratios = pairs(q, p, ns_per_op) if p else []
            # pairs() gives peer/queue because the queue's run is the reference
            row += f" {mmm(ratios):>20}"
            summary[(keys, skewed)][name] = statistics.median(ratios) if ratios else None
        print(row)
    print()
    print(f"[{label}] heap bytes per pending entry in the steady state (everything the container holds, "
          "bucket array included; 64-byte records)")
    print(f"{'workload':<12} {'pending':>9} {'queue':>8}" + "".join(f" {n:>14}" for _, n in PEERS))
    for keys, skewed in WORKLOADS:
        args = f"/keys:{keys}/skewed:{skewed}"
        q = runs.get(QUEUE + args)
        if not q:
            continue
        row = f"{workload_name(keys, skewed):<12} {q[0][0]['pending']:>9.0f} {q[0][0]['B/entry']:>8.1f}"
        summary[(keys, skewed)]["queue_B"] = q[0][0]["B/entry"]
        for bench, _ in PEERS:
            p = runs.get(bench + args)
            row += f" {p[0][0]['B/entry']:>14.1f}" if p else f" {'n/a':>14}"
        print(row)
    print()
    return summary


def e2e_table(d, label):
    runs = load_runs(d, "e2e")
    if not runs:
        print(f"[{label}] no e2e_bench results")
        return {}
    print(f"[{label}] the whole road: records through ASOrchMsgProc, the DAM queue, the drain and msgProc "
          "(64-byte records, 16-byte keys; CPU time; min/median/max over repetitions)")
    print(f"{'coalescing':<11} {'M records/s':>20} {'allocs/record':>14} {'msgProc/record':>15}")
    summary = {}
    for pct in (0, 50, 90):
        r = runs.get(f"BM_RecordsThroughMergeToMsgProc/coalesce_pct:{pct}")
        if not r:
            continue
        rate = flat(r, lambda b: b["items_per_second"] / 1e6)
        summary[pct] = statistics.median(rate)
        print(f"{str(pct) + '%':<11} {mmm(rate):>20} {r[0][0]['allocs_per_record']:>14.3f} "
              f"{r[0][0]['msgproc_per_record']:>15.3f}")
    print()
    return summary


LINE = re.compile(r"^\s*([\d,]+)\s+\(\s*[\d.]+%\)\s+(.*?)\s+\[(.*)\]\s*$")


def annotate(path, inclusive=False):
    """[(Ir, function, object)] of a callgrind output."""
    args = ["callgrind_annotate", "--threshold=100", f"--inclusive={'yes' if inclusive else 'no'}", path]
    try:
        text = subprocess.run(args, capture_output=True, text=True, check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return []
    rows = []
    for line in text.splitlines():
        m = LINE.match(line)
        if not m:
            continue
        fn = m.group(2)
        fn = fn.split(":", 1)[1] if ":" in fn else fn
        rows.append((int(m.group(1).replace(",", "")), fn, m.group(3)))
    return rows


ALLOC_FNS = {"malloc", "calloc", "realloc", "aligned_alloc", "posix_memalign", "memalign"}


def heap_calls(path):
    """Calls of the C allocation functions and of free in a callgrind output: (allocs, frees)."""
    names = {}
    allocs = frees = 0
    current = None
    with open(path, errors="replace") as f:
        for line in f:
            if line.startswith(("fn=", "cfn=")):
                m = re.match(r"c?fn=\((\d+)\)(?: (.*))?", line.rstrip("\n"))
                if m:
                    if m.group(2) is not None:
                        names[m.group(1)] = m.group(2)
                    if line.startswith("cfn="):
                        current = names.get(m.group(1))
            elif line.startswith("calls=") and current is not None:
                n = int(line.split("=", 1)[1].split()[0])
                if current in ALLOC_FNS:
                    allocs += n
                elif current == "free":
                    frees += n
                current = None
    return allocs, frees


def object_class(obj):
    base = os.path.basename(obj)
    if base.startswith("librix_autosync_orch"):
        return "library"
    if base.startswith("librix_utils_"):
        return "platform"
    if base.startswith("libc.so") or base.startswith("libc-"):
        return "libc"
    return "other"


def read_number(path, pattern):
    try:
        with open(path) as f:
            m = re.search(pattern, f.read())
    except OSError:
        return None
    return int(m.group(1)) if m else None


def callgrind_tables(d, label, top):
    summary = {}
    found = False
    for pct in (0, 50, 90):
        out = os.path.join(d, f"cg-road-{pct}.out")
        records = read_number(os.path.join(d, f"cg-road-{pct}.records"), r"records fed (\d+)")
        rows = annotate(out) if os.path.exists(out) else []
        if not rows or not records:
            continue
        if not found:
            print(f"[{label}] instructions per record (callgrind, collected in ASOrchMsgProc and the drain)")
            print(f"{'coalescing':<11} {'total':>7} {'library':>8} {'platform':>9} {'libc':>6} {'other':>6}"
                  f" {'records':>9} {'mallocs/rec':>12} {'frees/rec':>10}")
            found = True
        by = {"library": 0, "platform": 0, "libc": 0, "other": 0}
        for ir, _, obj in rows:
            by[object_class(obj)] += ir
        total = sum(by.values())
        allocs, frees = heap_calls(out)
        summary[pct] = {"total": total / records, **{k: v / records for k, v in by.items()}, "rows": rows,
                        "records": records, "mallocs": allocs / records}
        print(f"{str(pct) + '%':<11} {total / records:>7.0f} {by['library'] / records:>8.0f} "
              f"{by['platform'] / records:>9.0f} {by['libc'] / records:>6.0f} {by['other'] / records:>6.0f}"
              f" {records:>9} {allocs / records:>12.3f} {frees / records:>10.3f}")
    if found:
        print("mallocs/rec, frees/rec: calls of the C heap (module's memAlloc included) per record, any caller")
        print()
        for pct, s in summary.items():
            print(f"[{label}] top {top} functions at {pct}% coalescing (self instructions per record)")
            for ir, fn, obj in sorted(s["rows"], key=lambda r: -r[0])[:top]:
                print(f"  {ir / s['records']:>7.1f}  {fn[:70]:<70} {object_class(obj)}")
            print()
    out = os.path.join(d, "cg-mq.out")
    if os.path.exists(out):
        rows = annotate(out, inclusive=True)
        print(f"[{label}] merge queue and peers at 64K uniform keys: instructions per write (callgrind, "
              "inclusive cost of the measured rounds: 64 writes and a drain of 32)")
        for tag, name in (("queue", "queue"), ("boost", "Boost.MI"), ("boostpool", "Boost.MI+pool"),
                          ("std", "umap+list")):
            writes = read_number(os.path.join(d, "cg-mq.writes"), rf"measured writes {tag} (\d+)")
            ir = max((r[0] for r in rows if re.match(rf"RixBenchRound_{tag}\b", r[1])), default=0)
            if writes and ir:
                summary["mq_" + tag] = ir / writes
                print(f"  {name:<14} {ir / writes:>7.0f}")
        print()
    return summary


def before_after(a, b, la, lb):
    print(f"before/after: {la} -> {lb}, measured in the same run")
    print(f"{'figure':<52} {la[:14]:>14} {lb[:14]:>14}")

    def row(name, va, vb, fmt):
        sa = fmt.format(va) if va is not None else "n/a"
        sb = fmt.format(vb) if vb is not None else "n/a"
        print(f"{name:<52} {sa:>14} {sb:>14}")

    for pct in (0, 50, 90):
        ca, cb = a["cg"].get(pct, {}), b["cg"].get(pct, {})
        row(f"instructions per record, {pct}% (total)", ca.get("total"), cb.get("total"), "{:.0f}")
        row(f"instructions per record, {pct}% (library)", ca.get("library"), cb.get("library"), "{:.0f}")
        row(f"instructions per record, {pct}% (platform)", ca.get("platform"), cb.get("platform"), "{:.0f}")
        row(f"C heap allocations per record, {pct}%", ca.get("mallocs"), cb.get("mallocs"), "{:.3f}")
    for tag, name in (("queue", "queue"), ("boost", "Boost.MI")):
        row(f"instructions per write, 64K uniform, {name}", a["cg"].get("mq_" + tag), b["cg"].get("mq_" + tag),
            "{:.0f}")
    for pct in (0, 50, 90):
        row(f"M records/s, {pct}% (median)", a["e2e"].get(pct), b["e2e"].get(pct), "{:.2f}")
    for keys, skewed in WORKLOADS:
        sa, sb = a["mq"].get((keys, skewed), {}), b["mq"].get((keys, skewed), {})
        if not sa and not sb:
            continue
        w = workload_name(keys, skewed)
        row(f"queue ns per write, {w} (median)", sa.get("queue_ns"), sb.get("queue_ns"), "{:.1f}")
        row(f"Boost.MI / queue, {w} (median)", sa.get("Boost.MI"), sb.get("Boost.MI"), "{:.2f}")
        row(f"queue heap bytes per pending entry, {w}", sa.get("queue_B"), sb.get("queue_B"), "{:.1f}")
    for key, arch in (("heap", "x86_64"), ("heap_arm", "armhf")):
        cases = set(a[key]) | set(b[key])
        for case in sorted(cases, key=lambda c: (c.split(",")[0], int(re.findall(r"\d+", c)[0]))):
            row(f"heap per entry ({arch}), {case}", a[key].get(case), b[key].get(case), "{:.1f}")
    print()


def heap_totals(path):
    """{case: total bytes per pending entry} of a heap_probe output."""
    out = {}
    if os.path.exists(path):
        with open(path) as f:
            for line in f:
                m = re.match(r"^((?:road|queue alone), \d+ keys)\s+\d+\s+([\d.]+)", line)
                if m:
                    out[m.group(1)] = float(m.group(2))
    return out


def main():
    d = sys.argv[1]
    labels = sys.argv[2:]
    top = int(os.environ.get("RIX_BENCH_TOP", "10"))
    results = {}
    for label in labels:
        sub = os.path.join(d, label)
        print(f"==================== {label} ====================")
        heap = os.path.join(sub, "heap.txt")
        if os.path.exists(heap):
            print(f"[{label}] heap_probe: the queue's share of a pending entry")
            with open(heap) as f:
                print(f.read())
        heap = os.path.join(sub, "heap-armhf.txt")
        if os.path.exists(heap):
            print(f"[{label}] heap_probe on armhf (qemu-arm)")
            with open(heap) as f:
                print("".join(f.read().split("copy:")[0]))
        div = os.path.join(sub, "armhf-div.txt")
        if os.path.exists(div):
            # On the road: the function ran during the x86 callgrind runs of the road.
            road = set()
            for pct in (0, 50, 90):
                out = os.path.join(sub, f"cg-road-{pct}.out")
                if os.path.exists(out):
                    road.update(fn.split("(")[0] for _, fn, _ in annotate(out))
            with open(div) as f:
                rows = [l.rstrip("\n").split("\t") for l in f if l.count("\t") == 2]
            print(f"[{label}] armhf: functions that call a software division routine"
                  + ("" if road else " (no callgrind run: road membership unknown)"))
            for lib, fn, routine in rows:
                mark = "runs on the road" if fn.split("(")[0] in road else ""
                print(f"  {lib:<32} {fn[:44]:<44} {routine:<22} {mark}")
            if not rows:
                print("  none in the library or the platform stand-ins")
            print()
        results[label] = {"mq": mergeque_tables(sub, label), "e2e": e2e_table(sub, label),
                          "cg": callgrind_tables(sub, label, top), "heap": heap_totals(os.path.join(sub, "heap.txt")),
                          "heap_arm": heap_totals(os.path.join(sub, "heap-armhf.txt"))}
    if len(labels) == 2:
        before_after(results[labels[0]], results[labels[1]], labels[0], labels[1])


if __name__ == "__main__":
    main()
