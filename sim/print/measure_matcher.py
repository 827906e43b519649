#!/usr/bin/python3
"""How hard the virtual scanner's impressions are for an open minutiae matcher.

Renders an FVC-style database (FINGERS fingers x 8 plain impressions, 500 ppi,
written as PNG files with their resolution) through the scanner engine
(kr7sim_database), compares it with NIST's NBIS (mindtct + bozorth3) as
shipped in libfprint, and prints the genuine and impostor score
distributions, the false non-match and false match rates at bozorth3's
threshold of 40 and the equal error rate.

Protocol (FVC2000): genuine = all 28 pairs of the 8 impressions of a finger;
impostor = the first impressions of all pairs of fingers.

The matcher is libfprint's virtual_image driver (Debian libfprint-2-2 and
gir1.2-fprint-2.0, through python3-gi): an image sent over its socket is run
through mindtct, and an identification runs bozorth3 against a gallery of
prints. libfprint's API only says match or no match; the scores are read from
its debug log ("score N/40", domain libfprint-print), one line per gallery
print, in gallery order, up to the first match. The identification is then
repeated over the rest of the gallery, so that every pair gets its score.

Usage:
  measure_matcher.py [--fingers N] [--impressions 8] [--jobs 2] [--easy]
                     [--build build/default] [--out DIR [--scored]]
                     [--plot FILE.png] [--json FILE] [--top N]
"""
import argparse
import json
import multiprocessing
import os
import re
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pgm_to_png  # noqa: E402

THRESHOLD = 40
FINGERS_PER_TASK = 4  # each task runs in a fresh process: libfprint's heat model stays cold


def image_name(finger, impression):
    return "%d_%d" % (finger, impression)


class Matcher:
    """One libfprint virtual_image device in this process."""

    def __init__(self):
        self.path = tempfile.mktemp(prefix="kr7sim-fp", dir=tempfile.gettempdir())
        os.environ["FP_VIRTUAL_IMAGE"] = self.path
        import gi
        gi.require_version("FPrint", "2.0")
        from gi.repository import FPrint, GLib
        self.FPrint = FPrint
        self.scores = []
        GLib.log_set_handler("libfprint-print", GLib.LogLevelFlags.LEVEL_DEBUG, self._log, None)
        self.context = FPrint.Context()
        devices = [d for d in self.context.get_devices() if d.get_driver() == "virtual_image"]
        if not devices:
            raise RuntimeError("libfprint has no virtual_image device")
        self.device = devices[0]
        self.device.open_sync()
        self.client = socket.socket(socket.AF_UNIX)
        self.client.connect(self.path)
        self.pending = []
        self.device.connect("notify::fpi-image-device-state", self._state)

    def _log(self, domain, level, message, data):
        m = re.match(r"score (-?\d+)/", message)
        if m:
            self.scores.append(int(m.group(1)))

    def _state(self, device, pspec):
        # The driver takes an image only while it awaits a finger.
        state = device.get_property("fpi-image-device-state")
        if "AWAIT_FINGER_ON" in str(state) and self.pending:
            data = self.pending.pop(0)
            threading.Thread(target=self.client.sendall, args=(data,)).start()

    def queue(self, pixels):
        self.pending.append(struct.pack("ii", pixels[0], pixels[1]) + pixels[2])

    def enroll(self, pixels):
        for _ in range(self.device.get_nr_enroll_stages()):
            self.queue(pixels)
        return self.device.enroll_sync(self.FPrint.Print.new(self.device), None, None, None)

    def print_of(self, pixels, template):
        """The probe print of an image (identified against any template)."""
        self.queue(pixels)
        return self.device.identify_sync([template], None, None, None)[1]

    def identify(self, pixels, gallery):
        """Scores of the probe against every gallery print, and the probe's print."""
        scores, probe = [], None
        while len(scores) < len(gallery):
            rest = gallery[len(scores):]
            self.scores = []
            self.queue(pixels)
            matched, print_ = self.device.identify_sync(rest, None, None, None)
            probe = probe or print_
            got = self.scores
            if matched is None:
                if len(got) != len(rest):
                    raise RuntimeError("expected %d scores, log gave %d" % (len(rest), len(got)))
            elif not got or got[-1] < THRESHOLD or len(got) > len(rest):
                raise RuntimeError("match without a matching score in the log")
            scores += got
        return scores, probe

    def close(self):
        self.device.close_sync()
        self.client.close()


def load(folder, name):
    return pgm_to_png.read_pgm(os.path.join(folder, name + ".pgm"))


def deserialize(matcher, blob):
    return matcher.FPrint.Print.deserialize(bytes.fromhex(blob))


def first_prints_task(args):
    """Prints of the first impressions (probes against a bootstrap template)."""
    folder, fingers = args
    m = Matcher()
    try:
        template = m.enroll(load(folder, image_name(fingers[0], 1)))
        out = {}
        for f in fingers:
            probe = m.print_of(load(folder, image_name(f, 1)), template)
            out[f] = bytes(probe.serialize()).hex()
        return out
    finally:
        m.close()


def finger_task(args):
    """Genuine scores of some fingers, and impostor scores of their first
    impressions against the first impressions of all lower fingers."""
    folder, fingers, impressions, firsts = args
    m = Matcher()
    genuine, impostor = [], []
    try:
        for f in fingers:
            lower = [g for g in sorted(firsts) if g < f]
            if lower:
                scores, _ = m.identify(load(folder, image_name(f, 1)),
                                       [deserialize(m, firsts[g]) for g in lower])
                impostor += [(g, f, s) for g, s in zip(lower, scores)]
            own = [deserialize(m, firsts[f])]
            for k in range(2, impressions + 1):
                scores, probe = m.identify(load(folder, image_name(f, k)), own)
                genuine += [(f, i + 1, k, s) for i, s in enumerate(scores)]
                own.append(probe)
        return genuine, impostor
    finally:
        m.close()


def error_rates(genuine, impostor, t):
    fnmr = sum(s < t for s in genuine) / len(genuine)
    fmr = sum(s >= t for s in impostor) / len(impostor) if impostor else 0.0
    return fnmr, fmr


def equal_error_rate(genuine, impostor):
    best = (2.0, 0)
    for t in range(0, max(genuine + impostor) + 2):
        fnmr, fmr = error_rates(genuine, impostor, t)
        best = min(best, (abs(fnmr - fmr), t, (fnmr + fmr) / 2))
    return best[2], best[1]


def quantiles(values):
    q = statistics.quantiles(values, n=20, method="inclusive")
    return {"min": min(values), "p5": q[0], "p25": q[4], "median": statistics.median(values),
            "p75": q[14], "p95": q[18], "max": max(values)}


def plot(path, genuine, impostor, title):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    top = max(max(genuine), 200)
    bins = list(range(0, top + 10, 5))
    fig, ax = plt.subplots(figsize=(8, 4.5))
    ax.hist([min(s, top) for s in impostor], bins=bins, density=True, alpha=0.6,
            label="impostor (%d)" % len(impostor), color="tab:red")
    ax.hist([min(s, top) for s in genuine], bins=bins, density=True, alpha=0.6,
            label="genuine (%d)" % len(genuine), color="tab:blue")
    ax.axvline(THRESHOLD, color="black", linestyle="--", label="threshold 40")
    ax.set_yscale("log")
    ax.set_xlabel("bozorth3 score (scores above %d in the last bin)" % top)
    ax.set_ylabel("density (log)")
    ax.set_title(title)
    ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=100)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--fingers", type=int, default=100)
    parser.add_argument("--impressions", type=int, default=8)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--easy", action="store_true", help="the easy placements")
    parser.add_argument("--build", default="build/default")
    parser.add_argument("--out", help="database folder (default: a temporary one)")
    parser.add_argument("--plot", help="score distributions as a PNG file")
    parser.add_argument("--json", help="all scores and figures as a JSON file")
    parser.add_argument("--scored", action="store_true",
                        help="score the database already in --out instead of rendering it")
    parser.add_argument("--top", type=int, default=0, metavar="N",
                        help="list the N highest impostor pairs")
    a = parser.parse_args()
    if a.fingers < 2 or a.impressions < 2 or not 1 <= a.jobs <= 2:
        parser.error("need at least 2 fingers and 2 impressions, and 1 or 2 jobs")
    if a.scored and not a.out:
        parser.error("--scored needs --out")
    renderer = os.path.join(a.build, "sim", "print", "kr7sim_database")
    if not os.access(renderer, os.X_OK):
        sys.exit("%s missing: cmake --build %s --target kr7sim_database" % (renderer, a.build))
    folder = a.out or tempfile.mkdtemp(prefix="kr7sim-db")
    os.makedirs(folder, exist_ok=True)

    t0 = time.time()
    command = [renderer, folder, str(a.fingers), str(a.impressions)] + (["--easy"] if a.easy else [])
    if not a.scored:
        print(subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip())
    for f in range(1, a.fingers + 1):
        for k in range(1, a.impressions + 1):
            w, h, px = load(folder, image_name(f, k))
            pgm_to_png.write_png(os.path.join(folder, image_name(f, k) + ".png"), w, h, px)
    t1 = time.time()

    fingers = list(range(1, a.fingers + 1))
    chunks = [fingers[i:i + FINGERS_PER_TASK] for i in range(0, len(fingers), FINGERS_PER_TASK)]
    spawn = multiprocessing.get_context("spawn")
    with spawn.Pool(a.jobs, maxtasksperchild=1) as pool:
        firsts = {}
        for part in pool.map(first_prints_task, [(folder, c) for c in chunks]):
            firsts.update(part)
        genuine_rows, impostor = [], []
        for g, i in pool.imap_unordered(finger_task, [(folder, c, a.impressions, firsts)
                                                      for c in chunks]):
            genuine_rows += g
            impostor += i
    t2 = time.time()

    genuine = [row[3] for row in genuine_rows]
    impostor_rows, impostor = impostor, [row[2] for row in impostor]
    fnmr, fmr = error_rates(genuine, impostor, THRESHOLD)
    eer, eer_t = equal_error_rate(genuine, impostor)
    report = {
        "database": folder, "fingers": a.fingers, "impressions": a.impressions,
        "easy": a.easy, "genuine_pairs": len(genuine), "impostor_pairs": len(impostor),
        "genuine": quantiles(genuine), "impostor": quantiles(impostor),
        "fnmr_at_40": fnmr, "fmr_at_40": fmr, "eer": eer, "eer_threshold": eer_t,
        "impostor_at_or_above_40": sum(s >= THRESHOLD for s in impostor),
        "genuine_below_40": sum(s < THRESHOLD for s in genuine),
        "render_seconds": round(t1 - t0, 1), "match_seconds": round(t2 - t1, 1),
        "jobs": a.jobs,
    }
    print(json.dumps(report, indent=2))
    for g, f, s in sorted(impostor_rows, key=lambda row: -row[2])[:a.top]:
        print("impostor %d_1 vs %d_1: %d" % (g, f, s))
    if a.json:
        with open(a.json, "w") as f:
            json.dump(dict(report, genuine_scores=genuine_rows, impostor_scores=impostor_rows), f)
    if a.plot:
        title = "NBIS on %d fingers x %d impressions%s: FNMR@40 %.1f %%, FMR@40 %.2f %%, EER %.1f %%" % (
            a.fingers, a.impressions, " (easy)" if a.easy else "", 100 * fnmr, 100 * fmr, 100 * eer)
        plot(a.plot, genuine, impostor, title)


if __name__ == "__main__":
    main()
