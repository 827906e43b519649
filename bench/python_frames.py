#!/usr/bin/env python3
"""Live frames through the kr7 Python module: frames per second through
scanner.frames() and the module's cost per frame above the plug-in's own,
as a ratio to a copy of the frame in the same process.

The virtual scanner hands out one pre-rendered frame per call
(KR7SIM_FIXED_FRAME=1) and the calibration copies rows instead of
correcting them (KR7SIM_CAL_COPY=1), as in bench_plugin_end_to_end, so the
plug-in runs at full speed and the module's share shows. For each frame
size, in one process and one after the other:

- copy: numpy.copyto of a same-size uint8 array (median of single copies),
  the floor the ratios are taken against;
- plug-in: the interval between live frames at a C++ handler that does
  nothing (Scanner._plugin_intervals: the plug-in's own pace, mean, as the
  frames() figure is);
- frames(): a Python loop taking frames from scanner.frames() as fast as it
  can (keep=4); frames per second handed to Python, the interval, the
  frames the plug-in delivered meanwhile and those dropped, and the Python
  thread's CPU time per frame (time.thread_time);
- above = frames() interval - plug-in interval, and above / copy;
- the same in CPU time, which a busy machine disturbs less: the process's
  CPU time per frame with the null handler (the plug-in's own), and over the
  frames() loop the process's CPU time less that for every frame the
  plug-in delivered, per frame handed to Python, and its ratio to the copy. The
  module's design cost is one copy in the plug-in's callback (out of the
  lent bitmap into the frame's own buffer) and, on the Python thread, the
  array made around that buffer without a copy; the goal is at most two
  copies' worth.

Usage (from the repository, after a build):
    PYTHONPATH=build/default/python /usr/bin/python3 bench/python_frames.py [--frames N] [--json FILE]
"""

import argparse
import json
import os
import statistics
import time

import numpy as np

import kr7

SIZES = {"320x480": None, "640x480": "size=640x480"}


def copy_floor(shape, count=3000):
    source = np.random.default_rng(1).integers(0, 256, shape, dtype=np.uint8)
    target = np.empty_like(source)
    times = []
    clock = time.perf_counter
    for _ in range(count):
        start = clock()
        np.copyto(target, source)
        times.append(clock() - start)
    return statistics.median(times)


def measure(size, frames, rounds):
    os.environ["KR7SIM_FIXED_FRAME"] = "1"
    os.environ["KR7SIM_CAL_COPY"] = "1"
    # The finger stays after the last step: no placement renders a new one.
    os.environ["KR7SIM_SCENARIO"] = "place; hold 1s"
    os.environ.pop("KR7SIM_REALTIME", None)
    if SIZES[size]:
        os.environ["KR7SIM_UNITS"] = SIZES[size]
    else:
        os.environ.pop("KR7SIM_UNITS", None)
    figures = {"size": size, "frames": frames, "rounds": []}
    with kr7.open(virtual=True) as scanner:
        shape = scanner.snap().shape
        scanner._plugin_intervals(300)  # warm-up
        for _ in range(rounds):
            busy = time.process_time()
            intervals = scanner._plugin_intervals(frames)
            busy = (time.process_time() - busy) / len(intervals)
            plugin = statistics.fmean(intervals)
            copy = copy_floor(shape)
            capture = scanner.frames(count=None, timeout=None, keep=4)
            for _ in range(200):  # warm-up
                next(capture)
            delivered, dropped = capture.frames, capture.dropped
            process, cpu, start = time.process_time(), time.thread_time(), time.perf_counter()
            for _ in range(frames):
                frame = next(capture)
            seconds = time.perf_counter() - start
            cpu = time.thread_time() - cpu
            process = time.process_time() - process
            delivered, dropped = capture.frames - delivered, capture.dropped - dropped
            capture.close()
            assert frame.image.shape == shape
            interval = seconds / frames
            figures["rounds"].append({
                "copy_us": copy * 1e6,
                "plugin_us": plugin * 1e6,
                "plugin_fps": 1 / plugin,
                "frames_fps": frames / seconds,
                "frames_us": interval * 1e6,
                "delivered": delivered,
                "dropped": dropped,
                "python_cpu_us": cpu / frames * 1e6,
                "above_us": (interval - plugin) * 1e6,
                "above_x_copy": (interval - plugin) / copy,
                "plugin_cpu_us": busy * 1e6,
                "process_cpu_us": process / frames * 1e6,
                "above_cpu_us": (process - busy * delivered) / frames * 1e6,
                "above_cpu_x_copy": (process - busy * delivered) / frames / copy,
                "python_cpu_x_copy": cpu / frames / copy,
            })
    figures["shape"] = list(shape)
    # The round with the median ratio stands for the size.
    ordered = sorted(figures["rounds"], key=lambda r: r["above_x_copy"])
    figures["median"] = ordered[len(ordered) // 2]
    return figures


def paced(frames=125):
    """At the scanner's own pace (KR7SIM_REALTIME=1, 25 frames a second):
    frames per second through frames() and the process's CPU time, against
    the plug-in alone (a C++ handler that does nothing)."""
    os.environ["KR7SIM_REALTIME"] = "1"
    os.environ.pop("KR7SIM_UNITS", None)
    try:
        with kr7.open(virtual=True) as scanner:
            scanner._plugin_intervals(5)
            cpu, start = time.process_time(), time.perf_counter()
            scanner._plugin_intervals(frames)
            alone = (time.process_time() - cpu) / (time.perf_counter() - start)
            capture = scanner.frames(count=None, timeout=None)
            next(capture)
            cpu, start = time.process_time(), time.perf_counter()
            for _ in range(frames):
                next(capture)
            seconds = time.perf_counter() - start
            through = (time.process_time() - cpu) / seconds
            capture.close()
    finally:
        os.environ.pop("KR7SIM_REALTIME", None)
    return {"fps": frames / seconds, "plugin_cpu_percent": alone * 100,
            "frames_cpu_percent": through * 100}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--frames", type=int, default=3000, help="frames per measurement (3000)")
    parser.add_argument("--rounds", type=int, default=5, help="measurements per size (5)")
    parser.add_argument("--json", help="write the figures here")
    args = parser.parse_args()
    results = []
    print(f"kr7 {kr7.__version__} from {kr7.__file__}")
    print("size     copy µs  plug-in µs (fps)    frames() µs (fps)    delivered dropped"
          "  python CPU µs  above µs  above/copy  range of rounds"
          "  | CPU: plug-in µs  above µs  above/copy  range")
    for size in SIZES:
        figures = measure(size, args.frames, args.rounds)
        results.append(figures)
        m = figures["median"]
        ratios = [r["above_x_copy"] for r in figures["rounds"]]
        cpu = [r["above_cpu_x_copy"] for r in figures["rounds"]]
        print(f"{size}  {m['copy_us']:7.2f}  {m['plugin_us']:7.2f} ({m['plugin_fps']:7.0f})"
              f"  {m['frames_us']:7.2f} ({m['frames_fps']:7.0f})  {m['delivered']:9d}"
              f" {m['dropped']:7d}  {m['python_cpu_us']:13.2f}  {m['above_us']:8.2f}"
              f"  {m['above_x_copy']:9.2f}×  {min(ratios):.2f}–{max(ratios):.2f}×"
              f"  | {m['plugin_cpu_us']:14.2f}  {m['above_cpu_us']:8.2f}  {m['above_cpu_x_copy']:9.2f}×"
              f"  {min(cpu):.2f}–{max(cpu):.2f}×")
    pace = paced()
    print(f"at 25 frames/s (KR7SIM_REALTIME=1, 320x480): {pace['fps']:.1f} frames/s through "
          f"frames(), process CPU {pace['frames_cpu_percent']:.2f} % of a core "
          f"(plug-in alone {pace['plugin_cpu_percent']:.2f} %)")
    if args.json:
        results.append({"paced": pace})
        with open(args.json, "w") as out:
            json.dump(results, out, indent=1)


if __name__ == "__main__":
    main()
