"""Turns the benchmarks' JSON into docs/performance.md: medians, each beside its peer of the same run."""
import json
import platform
import sys

# Benchmark: what it measures, its peer.
ROWS = {
    "logItem": ("one log line, built and dispatched", "peerOstringstream"),
    "mutex": ("lock and unlock a Mutex", "peerMutex"),
    "semaphore": ("hand a turn over and back, two Semaphores", "peerSemaphore"),
    "trigger": ("hand a turn over and back, two Triggers", "peerSemaphore"),
    "timestampMs": ("getTimestampMs", "peerSteadyClock"),
    "lastTimestampMs": ("getLastTimestampMs_Inaccurate(true)", "peerSteadyClock"),
}
PEERS = {
    "peerOstringstream": "the same text in a std::ostringstream",
    "peerMutex": "std::mutex",
    "peerSemaphore": "std::binary_semaphore",
    "peerSteadyClock": "std::chrono::steady_clock::now",
}

results = json.load(open(sys.argv[1]))
model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
medians = {}
for row in results["benchmarks"]:
    if row["aggregate_name"] == "median":
        name = row["run_name"].split("/")[0]
        medians[name, row["threads"]] = row["real_time"]

print("# Performance\n")
print("Written by `scripts/bench`: medians of 5 interleaved repetitions, ns of wall time an item, all threads together.\n")
print(f"Machine: {model}, {results['context']['num_cpus']} processors, {platform.system()} {platform.machine()}.\n")
print("| what | threads | ns | peer | ns | ratio |\n|---|---|---|---|---|---|")
for name, (title, peer) in ROWS.items():
    for (measured, threads), time in sorted(medians.items()):
        if measured == name:
            peer_time = medians[peer, threads]
            print(f"| {title} | {threads} | {time:.1f} | {PEERS[peer]} | {peer_time:.1f} | {time / peer_time:.2f} |")
