#!/usr/bin/env python3
"""Plots the per-frame times of bench_plugin_end_to_end.

Reads one or more JSON documents written with --out=FILE (for example one of
the Release and one of the RelWithDebInfo build) and draws, per capture mode
and frame size, the distribution of the interval between two frames at the
host's image callback, with the device's and the calibration's own time per
frame and the memcpy floor marked.

    python3 bench/plot_frame_times.py release.json relwithdebinfo.json \
        -o docs/images/plugin_frame_times.png
"""
import argparse
import json

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def clipped(values):
    ordered = sorted(values)
    low = ordered[int(0.01 * (len(ordered) - 1))]
    high = ordered[int(0.99 * (len(ordered) - 1))]
    return [v for v in values if low <= v <= high]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("inputs", nargs="+", help="JSON files written by --out")
    parser.add_argument("-o", "--output", required=True, help="PNG file to write")
    args = parser.parse_args()

    runs = []
    for path in args.inputs:
        with open(path) as f:
            document = json.load(f)
        entries = [c for c in document["configurations"] if "frame_us" in c]
        runs.append((document.get("build_type", path), entries))

    fig, axes = plt.subplots(len(runs), 1, figsize=(11, 4.2 * len(runs)), squeeze=False)
    for ax, (build, entries) in zip(axes[:, 0], runs):
        labels = [f"{e['mode']}\n{e['size']}" for e in entries]
        # The 1st to 99th percentile of each run's frames; the rare long
        # frames (the worker preempted) would flatten the shapes.
        data = [clipped(e["frame_us"]) for e in entries]
        positions = list(range(1, len(entries) + 1))
        ax.violinplot(data, positions=positions, showextrema=False, widths=0.8)
        ax.boxplot(data, positions=positions, widths=0.15, showfliers=False, whis=(0, 100))
        for x, e in zip(positions, entries):
            outside = e["device_us"] + e["calibration_us"]
            ax.hlines(outside, x - 0.4, x + 0.4, colors="tab:red", linewidth=1.5,
                      label="device + calibration" if x == 1 else None)
            ax.hlines(outside + e["memcpy_us"], x - 0.4, x + 0.4, colors="tab:green",
                      linestyles="dashed", linewidth=1.2,
                      label="device + calibration + 1 memcpy" if x == 1 else None)
            if "sleep0_us" in e:
                ax.hlines(outside + e["sleep0_us"], x - 0.4, x + 0.4, colors="tab:purple",
                          linestyles="dotted", linewidth=1.2,
                          label="device + calibration + the worker's sleep(0)" if x == 1
                          else None)
            ax.text(x, 0.97, f"{(e['total_us'] - outside) / e['memcpy_us']:.2f}x",
                    transform=ax.get_xaxis_transform(), ha="center", va="top", fontsize=8)
        ax.set_yscale("log")
        ax.set_ylim(3, max(max(d) for d in data) * 1.8)
        ax.set_xticks(positions)
        ax.set_xticklabels(labels, fontsize=8)
        ax.set_ylabel("time per frame (µs), 1st-99th percentile")
        ax.set_title(f"Frame interval at the host's image callback, {build} build "
                     "(label: plug-in share / memcpy of the frame)")
        ax.legend(loc="lower left", fontsize=8, ncol=3)
        ax.grid(axis="y", which="both", alpha=0.3)
    fig.tight_layout()
    fig.savefig(args.output, dpi=110)


if __name__ == "__main__":
    main()
