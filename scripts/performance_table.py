"""Turns the benchmarks' JSON into docs/performance.md: medians, each beside its peer of the same run."""
import json
import platform
import sys

# The benchmark, what it measures ({} stands for its size) and its peer.
ROWS = [
    ("logItem", "one log line, built and dispatched", "peerOstringstream"),
    ("mutex", "lock and unlock a Mutex", "peerMutex"),
    ("semaphore", "hand a turn over and back, two Semaphores", "peerSemaphore"),
    ("trigger", "hand a turn over and back, two Triggers", "peerSemaphore"),
    ("timestampMs", "getTimestampMs", "peerSteadyClock"),
    ("lastTimestampMs", "getLastTimestampMs_Inaccurate(true)", "peerSteadyClock"),
    ("longVal", "Tweaks::longVal among {}", "peerMap"),
    ("longVal", "Tweaks::longVal among {}", "peerIniGet"),
    ("loadTweaks", "load a tweak file of {} lines, one line", "peerIniLoad"),
    ("dynamicTweak", "read a member of DynamicTweaks", "peerBool"),
    ("countedPairs", "allocate and release 100 bytes, counted", "peerPairs"),
    ("countedUsedPairs", "the same, written and read between", "peerUsedPairs"),
    ("addTimer", "add a timer beside 10,000, with its log line", "peerAddMultimap"),
    ("addTimer", "add a timer beside 10,000, with its log line", "peerAddSmall"),
    ("addTimer", "add a timer beside 10,000, with its log line", "peerAddAsio"),
    ("expireTimer", "call and erase a due timer among 10,000", "peerExpireMultimap"),
    ("expireTimer", "call and erase a due timer among 10,000", "peerExpireSmall"),
    ("expireTimer", "call and erase a due timer among 10,000", "peerExpireAsio"),
    ("guardedReplace", "replace one of {} guarded blocks", "peerReplace"),
]
POOL_ROWS = [
    ("poolPairs", "a chunk, requested and given back", "peerListPairs"),
    ("poolPairs", "a chunk, requested and given back", "peerBoostPairs"),
    ("poolBursts", "the same in bursts of 16", "peerListBursts"),
    ("poolBursts", "the same in bursts of 16", "peerBoostBursts"),
]
PEERS = {
    "peerOstringstream": "the same text in a std::ostringstream",
    "peerMutex": "std::mutex",
    "peerSemaphore": "std::binary_semaphore",
    "peerSteadyClock": "std::chrono::steady_clock::now",
    "peerMap": "std::map with a case-insensitive order, std::mutex",
    "peerIniGet": "INIReader::GetInteger, which takes no lock",
    "peerIniLoad": "INIReader",
    "peerBool": "a global bool",
    "peerPairs": "new and delete",
    "peerUsedPairs": "new and delete",
    "peerReplace": "new and delete",
    "peerAddMultimap": "std::multimap under std::mutex, a future each",
    "peerAddSmall": "std::multimap under std::mutex, without futures",
    "peerAddAsio": "boost::asio::steady_timer",
    "peerExpireMultimap": "std::multimap under std::mutex, a future each",
    "peerExpireSmall": "std::multimap under std::mutex, without futures",
    "peerExpireAsio": "boost::asio::steady_timer",
    "peerListPairs": "a list of free chunks under a std::mutex",
    "peerListBursts": "a list of free chunks under a std::mutex",
    "peerBoostPairs": "boost::pool under a std::mutex",
    "peerBoostBursts": "boost::pool under a std::mutex",
}

results = json.load(open(sys.argv[3]))
model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
medians = {}
least = {}
for row in results["benchmarks"]:
    name, *arguments = row["run_name"].split("/")
    size = int(arguments[0]) if arguments and arguments[0].isdigit() else 0
    if row["aggregate_name"] == "median":
        time = 1e9 / row["items_per_second"] if "items_per_second" in row else row["real_time"]
        medians[name, size, row["threads"]] = time
    elif row["aggregate_name"] == "least":
        least[name, size] = row["real_time"]

print("# Performance\n")
print("Written by `scripts/bench`: medians of 5 interleaved repetitions, ns of wall time an item, all threads together.\n")
print(f"Machine: {model}, {results['context']['num_cpus']} processors, {platform.system()} {platform.machine()}.")
busy_before, busy_after = map(int, sys.argv[1:3])
is_idle = max(busy_before, busy_after) < 5
print(f"It was {'idle' if is_idle else 'NOT IDLE'} ({busy_before} percent busy before the run, {busy_after} after it).\n")


def table(rows):
    print("| what | threads | ns | peer | ns | ratio |\n|---|---|---|---|---|---|")
    for name, title, peer in rows:
        for (measured, size, threads), time in sorted(medians.items()):
            if measured == name:
                peer_time = medians[peer, size, threads]
                what = title.format(f"{size:,}")
                print(f"| {what} | {threads} | {time:.1f} | {PEERS[peer]} | {peer_time:.1f} | {time / peer_time:.2f} |")


table(ROWS)
small, large = sorted(size for name, size in least if name == "loadTweaks")
growth, peer_growth = (least[name, large] / least[name, small] for name in ("loadTweaks", "peerIniLoad"))
print(f"\nLoading {large // small} times as many lines takes {growth:.1f} times as long "
      f"(INIReader: {peer_growth:.1f} times), each in its fastest repetition.")
guarded, sanitized, checked, plain = map(float, sys.argv[6:])
print(f"\nReplacing a random one of 10,000 blocks of 100 bytes: {guarded:.0f} ns guarded, {sanitized:.0f} ns with plain "
      f"blocks under an address sanitizer, {checked:.0f} ns under valgrind's memcheck, {plain:.0f} ns by themselves.")
small, large = (medians["guardedAmong", size, 1] for size in (1000, 1_000_000))
print(f"\nA guarded block that comes and goes costs {small:.0f} ns beside 1,000 live ones and {large:.0f} ns beside "
      "1,000,000.")
none, many = (medians["idlePass", size, 1] for size in (0, 100_000))
print(f"\nA pass over 100,000 timers of which none is due costs {many:.0f} ns, one over none {none:.0f} ns.")

print("\n## The memory pool\n")
print("Chunks of 65,536 bytes that are there, each thread with a module of its own, ns a chunk.\n")
table(POOL_ROWS)
few, many = (medians["serveWaiting", size, 1] for size in (1000, 10_000))
print(f"\nGiving back what serves a request that waits takes {few:.0f} ns beside 1,000 requests of 100 modules and "
      f"{many:.0f} ns beside 10,000 of 1,000.")

log = json.load(open(sys.argv[4]))
print("\n## The log file\n")
print("Lines of about 120 bytes through the whole program path into files of 10 MiB. The peers log the same text into\n"
      "rotating files: spdlog asynchronously (8192 places, blocking) and synchronously (without flushing), Boost.Log\n"
      "asynchronously (8192 places, blocking). By hand: the line is formatted into one buffer of 64 KiB under one lock.\n"
      "A line is the time until everything is in the file, all producers together; CPU is that of all threads. Calls are\n"
      "timed one by one, with the two readings of the clock.\n")
COLUMNS = [("ours", "ours"), ("hand", "by hand"), ("peer", "spdlog"), ("peerSync", "spdlog, synchronous"), ("boost", "Boost.Log")]
print("| what | producers |" + "".join(f" {title} |" for _, title in COLUMNS))
print("|---|---|" + "---|" * len(COLUMNS))
for title, figure in [("million lines a second", "line"), ("ns a line", "line"), ("ns of CPU a line", "cpu"),
                      ("a call, p50, ns", "p50"), ("a call, p99, ns", "p99"), ("a call, p99.9, ns", "p99.9")]:
    for threads in (1, 2, 4):
        cells = [log.get(f"{name}/{threads}/{figure}") for name, _ in COLUMNS]
        if title.startswith("million"):
            texts = ["" if cell is None else f"{1000 / cell:.1f}" for cell in cells]
        else:
            texts = ["" if cell is None else f"{cell:,.0f}" for cell in cells]
        print(f"| {title} | {threads} | " + " | ".join(texts) + " |")
print("\nSynchronous, each line flushed, ns a line:\n\n| producers | ours | spdlog | ratio |\n|---|---|---|---|")
for threads in (1, 2, 4):
    ours, theirs = log[f"oursSync/{threads}/line"], log[f"peerSyncFlushed/{threads}/line"]
    print(f"| {threads} | {ours:,.0f} | {theirs:,.0f} | {ours / theirs:.2f} |")
print(f"\nThe same bytes ready made in blocks of 64 KiB take {log['bytes/1/line']:.0f} ns a line: one producer reaches "
      f"{100 * log['bytes/1/line'] / log['ours/1/line']:.0f} percent of that.")
print(f"\nA rotation beside 10,000 numbered files takes {log['rotation/1/call'] / 1e6:.1f} ms.")
print(f"\nWhile the disk stands still, a logger with a budget of 3 MiB takes {100 * log['memory/1/share']:.0f} percent of "
      "it from the heap.")

active = json.load(open(sys.argv[5]))
print("\n## Active objects and futures\n")
print("A million actions that add 1 to a counter, from the making of the first until the last one has run, ns an action;\n"
      "the peer is boost::asio::thread_pool. The plain pool is a std::deque of std::function, which allocates nothing for\n"
      "work as small as this, under a std::mutex with a std::condition_variable; oneTBB's is a task_arena.\n")
print("| workers | producers | ours | asio | ratio | plain pool | oneTBB |\n|---|---|---|---|---|---|---|")
for workers in (1, 2):
    for producers in (1, 2):
        ours, asio, plain, tbb = (active[f"active/{workers}w/{producers}p/{pool}"]
                                  for pool in ("ours", "asio", "plain", "tbb"))
        print(f"| {workers} | {producers} | {ours:,.0f} | {asio:,.0f} | {ours / asio:.2f} | {plain:,.0f} | {tbb:,.0f} |")
print("\nAn idle worker woken: from before the call that enqueues to the first instruction of the action. Futures beside\n"
      "std::promise and std::future.\n")
print("| what | ours, ns | peer | ns | ratio |\n|---|---|---|---|---|")
for title, name, peer, title_of_peer in [
    ("wake the only worker", "wake/1w", "asio", "boost::asio::thread_pool"),
    ("wake one of two workers", "wake/2w", "asio", "boost::asio::thread_pool"),
    ("two threads, a round trip by two futures", "future/handover", "std", "std::future"),
    ("make, set and get a future, one thread", "future/single", "std", "std::future"),
    ("set a future, wake the thread that waits", "future/asleep", "std", "std::future"),
]:
    for what, suffix in ((title, ""), (f"{title}, 99 percent of times", "/p99")):
        if f"{name}/ours{suffix}" in active:
            ours, theirs = active[f"{name}/ours{suffix}"], active[f"{name}/{peer}{suffix}"]
            print(f"| {what} | {ours:,.0f} | {title_of_peer} | {theirs:,.0f} | {ours / theirs:.2f} |")
