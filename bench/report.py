#!/usr/bin/env python3
"""Turns the outputs of one benchmark run into one table and one JSON file.

    report.py RESULTS_DIR OUT_JSON

RESULTS_DIR holds what scripts/bench wrote: micro.json and event_memory.json (Google Benchmark
JSON with repetitions), end_to_end.json (Google Benchmark JSON) with end_to_end_samples.json (the
raw samples), memory.json and sizes.json, and rows_*.json: rows that a program computed itself,
{"rows": [{"figure", "library", "baseline", "ratio", "note", "kind", "values"}]}. Each micro figure is the median over the repetitions
of the CPU time per iteration; each end-to-end figure is a percentile of its samples. A ratio is
always library / baseline from the same process and run.
"""

import json
import os
import sys


def load(path):
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return json.load(f)


def gbench_medians(data):
    """name -> median CPU time in ns (the "median" aggregate, else the only run)."""
    result = {}
    if not data:
        return result
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    singles = {}
    for b in data.get("benchmarks", []):
        if b.get("error_occurred"):
            result[b.get("run_name", b["name"])] = None
            continue
        ns = b["cpu_time"] * scale.get(b.get("time_unit", "ns"), 1.0)
        name = b.get("run_name", b["name"])
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                result[name] = ns
        else:
            singles.setdefault(name, []).append(ns)
    for name, values in singles.items():
        if name not in result:
            values.sort()
            result[name] = values[len(values) // 2]
    return result


def fmt_time(ns):
    if ns is None:
        return "failed"
    if ns < 1e3:
        return "%.1f ns" % ns
    if ns < 1e6:
        return "%.2f us" % (ns / 1e3)
    return "%.3f ms" % (ns / 1e6)


def fmt_ms(ms):
    return "failed" if ms is None else "%.3f ms" % ms


def ratio(a, b):
    if a is None or b is None or b == 0:
        return None
    return a / b


def fmt_ratio(r):
    return "-" if r is None else "%.2f" % r


def main():
    results_dir, out_json = sys.argv[1], sys.argv[2]
    rows = []

    def add(figure, library, baseline, r, note="", kind="ratio", raw=None):
        rows.append({"figure": figure, "library": library, "baseline": baseline,
                     "ratio": None if r is None else round(r, 3), "note": note,
                     "kind": kind, "values": raw or {}})

    # --- Micro benchmarks ---------------------------------------------------------------------
    micro = gbench_medians(load(os.path.join(results_dir, "micro.json")))
    micro.update(gbench_medians(load(os.path.join(results_dir, "event_memory.json"))))

    def micro_row(figure, lib, base, note=""):
        a, b = micro.get(lib), micro.get(base)
        add(figure, fmt_time(a), fmt_time(b), ratio(a, b), note,
            raw={"library_ns": a, "baseline_ns": b, "library_benchmark": lib,
                 "baseline_benchmark": base})

    micro_row("async command: seek() on a starting proxy -> setAccessValue (no-op access)",
              "BM_Command", "BM_CommandBaseline",
              "baseline: session id + %f timestamp + the 11 strings")
    for n, label in ((1, "1"), (1000, "1,000"), (100000, "100,000")):
        micro_row("dispatch: onZVREvent \"seeked\" to a registered proxy, %s registered" % label,
                  "BM_Dispatch/%d" % n, "BM_DispatchBaseline/%d" % n,
                  "baseline: std::map::find, same size")
    for n, label in ((1, "1"), (1000, "1,000"), (100000, "100,000")):
        micro_row("attach: createNewZVRMediaProxy(id) of a registered id, %s registered" % label,
                  "BM_Attach/%d" % n, "BM_AttachBaseline/%d" % n,
                  "baseline: new object + map erase/insert")
    micro_row("counters: async command, counting on / off", "BM_Command", "BM_CommandUncounted",
              "goal: at most 1.10")
    for n, label in ((1, "1"), (1000, "1,000"), (100000, "100,000")):
        micro_row("counters: dispatch, counting on / off, %s registered" % label,
                  "BM_Dispatch/%d" % n, "BM_DispatchUncounted/%d" % n, "goal: at most 1.15")
    micro_row("log: ZVR_LOG at a disabled severity", "BM_LogDisabled", "BM_LogDisabledBaseline",
              "baseline: one level-check call")
    micro_row("log: ZVR_LOG enabled, discarding sink", "BM_LogEnabled", "BM_LogEnabledBaseline",
              "baseline: one snprintf of the line")
    em = load(os.path.join(results_dir, "event_memory.json")) or {}
    record_bytes = None
    for b in em.get("benchmarks", []):
        if (b.get("run_name", b["name"]) == "BM_ReadEventMemory" and "bytes" in b
                and b.get("run_type") == "iteration"):
            record_bytes = int(b["bytes"])
    micro_row("event: readZVREventMemory() of a %s-byte record" % (record_bytes or "?"),
              "BM_ReadEventMemory", "BM_ReadEventMemoryBaseline",
              "baseline: memcpy 4096 B + one Json::Reader parse")

    # --- End to end ---------------------------------------------------------------------------
    samples = load(os.path.join(results_dir, "end_to_end_samples.json"))
    if samples is None:
        add("end to end over D-Bus", "not run", "-", None, "see end_to_end.log", kind="absolute")
    else:
        figures = samples.get("figures", {})
        failures = samples.get("failures", {})

        def pct(figure, series, p):
            s = figures.get(figure, {}).get(series)
            return None if s is None else s.get("p%d_ms" % p)

        def e2e_ratio_rows(figure, label, series="library"):
            for p in (50, 99):
                lib = pct(figure, series, p)
                rt = pct(figure, "round_trip", p)
                raw = pct(figure, "raw", p)
                waits = pct(figure, "waits", p)
                note = "floor (raw command+answer) %s" % fmt_ms(raw)
                if waits:
                    note += "; usleep %s" % fmt_ms(waits)
                if failures.get(figure):
                    note += "; %d failed" % failures[figure]
                add("%s p%d" % (label, p), fmt_ms(lib), fmt_ms(rt), ratio(lib, rt), note,
                    raw={"library_ms": lib, "round_trip_ms": rt, "raw_floor_ms": raw,
                         "waits_ms": waits, "figure": figure, "series": series})

        def e2e_absolute_rows(figure, label, expected):
            for p in (50, 99):
                lib = pct(figure, "library", p)
                waits = pct(figure, "waits", p)
                rt = pct(figure, "round_trip", p)
                raw = pct(figure, "raw", p)
                note = "%s; round trip %s, raw command+answer %s" % (expected, fmt_ms(rt),
                                                                      fmt_ms(raw))
                if failures.get(figure):
                    note += "; %d failed" % failures[figure]
                add("%s p%d" % (label, p), fmt_ms(lib),
                    "fixed waits %s" % fmt_ms(waits), None, note, kind="absolute",
                    raw={"library_ms": lib, "fixed_waits_ms": waits, "round_trip_ms": rt,
                         "raw_floor_ms": raw, "figure": figure})

        e2e_ratio_rows("async_start", "e2e: start(url,1) -> url callback")
        e2e_ratio_rows("sync_start", "e2e: start(url,1) -> return, sync mode",
                       series="library_return")
        e2e_ratio_rows("sync_stop", "e2e: synchronous stop() -> return")
        e2e_ratio_rows("sync_stop_late", "e2e: synchronous stop(), service answers 1 ms late")
        e2e_absolute_rows("async_create", "create: createNewZVRMediaProxy()",
                          "no fixed wait; 1 call + answer signal")
        e2e_absolute_rows("sync_create", "create: createNewZVRMediaProxySync()",
                          "floor 4 calls, no poll")
        e2e_absolute_rows("sync_create_late",
                          "create: createNewZVRMediaProxySync(), service 1 ms late",
                          "floor 50 ms poll + 4 calls")

    # --- Memory and size ----------------------------------------------------------------------
    mem = load(os.path.join(results_dir, "memory.json"))
    if mem:
        a = mem["library_resident_bytes_per_proxy"]
        b = mem["baseline_resident_bytes_per_entry"]
        add("memory: resident bytes per registered proxy at %d proxies" % mem["count"],
            "%.0f B" % a, "%.0f B" % b, ratio(a, b),
            "heap %d B vs %d B; sizeof(ZVRMediaProxyObject) %d; baseline: map entry + "
            "make_shared id" % (mem["library_heap_bytes_per_proxy"],
                                mem["baseline_heap_bytes_per_entry"], mem["sizeof_proxy_object"]),
            raw=mem)
    sizes = load(os.path.join(results_dir, "sizes.json")) or {}
    for arch in ("x86-64", "armhf"):
        s = sizes.get(arch)
        if s is None:
            continue
        if s.get("bytes") is None:
            add("size: stripped libzvr_media_proxy.so, %s" % arch, s.get("status", "not built"),
                "-", None, s.get("note", ""), kind="absolute", raw=s)
        else:
            add("size: stripped libzvr_media_proxy.so, %s" % arch, "%d B" % s["bytes"], "-",
                None, s.get("note", ""), kind="absolute", raw=s)

    # --- Figures that their programs computed: rows_*.json -------------------------------------
    for name in sorted(os.listdir(results_dir)):
        if not (name.startswith("rows_") and name.endswith(".json")):
            continue
        for r in (load(os.path.join(results_dir, name)) or {}).get("rows", []):
            add(r["figure"], r["library"], r.get("baseline", "-"), r.get("ratio"),
                r.get("note", ""), kind=r.get("kind", "ratio"), raw=r.get("values"))

    # --- Output -------------------------------------------------------------------------------
    headers = ("figure", "library", "baseline", "ratio", "note")
    table = [(r["figure"], r["library"], r["baseline"], fmt_ratio(r["ratio"]), r["note"])
             for r in rows]
    widths = [max(len(headers[i]), max(len(t[i]) for t in table)) for i in range(4)]
    line = "  ".join(h.ljust(widths[i]) if i < 4 else h for i, h in enumerate(headers))
    print(line)
    print("-" * min(len(line) + 40, 200))
    for t in table:
        print("  ".join((t[i].rjust(widths[i]) if i in (1, 2, 3) else t[i].ljust(widths[i]))
                        if i < 4 else t[i] for i in range(5)))

    meta = load(os.path.join(results_dir, "run.json")) or {}
    with open(out_json, "w") as f:
        json.dump({"run": meta, "figures": rows,
                   "raw_outputs": sorted(os.listdir(results_dir))}, f, indent=2)
        f.write("\n")


if __name__ == "__main__":
    main()
