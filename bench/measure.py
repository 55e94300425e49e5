"""Measuring: one process per contender, asked in turn, so that none pays for another's objects or memory.

Time is taken inside the process; the garbage collector runs as it does for anyone. Memory is the process's
resident set, read after freed memory has gone back to the system.
"""

import collections
import ctypes
import gc
import multiprocessing
import os
import statistics
import sys
import time

import contenders

ENOUGH = 0.01  # seconds of work that make one sample worth having
FEW = 3
A_FEW_ROWS = 100  # looked at in turn and once before, so that it's the code that is timed and not the processor's cache
LOOK_UPS = ("by_unique", "get_row")


def sample(contender, operation, calls):
    """Seconds per call."""
    act = getattr(contender, operation)
    if calls <= FEW:
        spent = 0.0
        for _ in range(calls):
            contender.before(operation)
            argument = contender.argument(operation)
            start = time.perf_counter()
            act(argument)
            spent += time.perf_counter() - start
            contender.after(operation)
        return spent / calls
    contender.before(operation)
    different = calls if operation.endswith("anywhere") else min(calls, A_FEW_ROWS)
    arguments = [contender.argument(operation) for _ in range(different)] * (calls // different)
    if operation in LOOK_UPS:
        collections.deque(map(act, arguments[:different]), maxlen=0)
    start = time.perf_counter()
    collections.deque(map(act, arguments), maxlen=0)
    return (time.perf_counter() - start) / len(arguments)


def check(contender):
    """A contender that finds other rows than the rest is measured for nothing."""
    if contender.count and hasattr(contender, "one_percent"):
        found = len(contender.one_percent(contender.argument("one_percent"))), len(contender.select_all(None))
        if found != (contender.count // 100, contender.count):
            raise AssertionError(f"{type(contender).__name__} finds {found} of {contender.count} rows")


def serve(connection, name, prepare, *arguments, **options):
    """The process of one contender: answers (operation, calls) with a sample, until told None."""
    sys.stdout = open(os.devnull, "w")
    contender = contenders.CONTENDERS[name](*arguments, **options)
    if prepare:
        getattr(contender, prepare)()
    if prepare == "use":
        check(contender)
    gc.collect()
    connection.send(contender.path)
    for operation, calls in iter(connection.recv, None):
        connection.send(sample(contender, operation, calls) if hasattr(contender, operation) else None)


def start(target, *arguments, **options):
    """A new process and the pipe to it; a process that dies ends the pipe, too."""
    here, there = multiprocessing.Pipe()
    process = multiprocessing.Process(target=target, args=(there, *arguments), kwargs=options, daemon=True)
    process.start()
    there.close()
    return process, here


class Worker:
    """`prepare` is what its process does first: "fill", "use" or nothing."""

    def __init__(self, name, *arguments, prepare="use", label=None, **options):
        self.name = label or name
        self.process, self.connection = start(serve, name, prepare, *arguments, **options)
        self.path = self.connection.recv()

    def sample(self, operation, calls):
        self.connection.send((operation, calls))
        return self.connection.recv()

    def stop(self):
        self.connection.send(None)
        self.process.join()


def interleaved(workers, operation, rounds, budget):
    """{name: seconds of each sample}. One that is too slow for the budget sits out some rounds, but not all."""
    samples = {}
    plan = {}
    for worker in workers:
        first = worker.sample(operation, 1)
        if first is None:
            continue
        if operation in LOOK_UPS:  # the first of them finds nothing in the cache
            first = min(first, worker.sample(operation, 1))
        changes = operation in ("insert", "insert_memory", "update", "delete")
        calls = FEW if changes and first < 0.05 else 1 if changes else max(1, min(2000, int(ENOUGH / first)))
        turns = max(FEW, min(rounds, int(budget / (first * calls))))
        plan[worker] = calls, turns
        samples[worker.name] = []
        if first > budget / FEW:  # at this length the first call is no different from the others
            samples[worker.name].append(first)
            plan[worker] = calls, FEW - 1
    for turn in range(rounds):
        for worker, (calls, turns) in plan.items():
            if turn * turns // rounds != (turn + 1) * turns // rounds:
                samples[worker.name].append(worker.sample(operation, calls))
    return samples


def resident(field):
    """Bytes of the process's memory, "VmRSS" now or "VmHWM" at its peak; None where the system doesn't tell."""
    if field == "VmRSS" and os.path.exists("/proc/self/smaps_rollup"):
        path, field = "/proc/self/smaps_rollup", "Rss"  # exact, where the short form lags behind
    else:
        path = "/proc/self/status"
    with open(path) as file:
        return next(int(line.split()[1]) * 1024 for line in file if line.startswith(field + ":"))


def settled():
    gc.collect()
    ctypes.CDLL(None).malloc_trim(0)
    return resident("VmRSS")


def weigh(connection, name, folder, count, turn):
    """The process that weighs one contender: bytes kept by a load, bytes that one insert needs at its peak."""
    sys.stdout = open(os.devnull, "w")
    contender = contenders.CONTENDERS[name](folder, count)
    contender.next = count * (turn + 2)  # past whatever the file has been given so far
    try:
        before = settled()
        contender.use()
        kept = settled() - before
        contender.insert(contender.argument("insert"))  # lists have grown, indexes are in place
        before = settled()
        with open("/proc/self/clear_refs", "w") as file:
            file.write("5")  # the peak starts anew
        contender.insert(contender.argument("insert"))
        peak = max(0, resident("VmHWM") - before)
        connection.send((kept, peak))
    except (OSError, AttributeError):
        connection.send((None, None))


def memory(name, folder, count, times=3):
    """Medians of `weigh`, each time in a new process; the folder's file is left with more rows than before."""
    results = []
    for turn in range(times):
        process, here = start(weigh, name, folder, count, turn)
        results.append(here.recv())
        process.join()
    kept, peak = zip(*results)
    return {"kept": None if None in kept else statistics.median(kept),
            "peak": None if None in peak else statistics.median(peak)}


class Watch:
    """How quiet the machine was: its load average, and the share of its processors that others used."""

    def __init__(self):
        self.load = os.getloadavg()[0]
        self.start = time.monotonic()
        self.busy = self.busy_now()
        self.own = self.own_now()

    @staticmethod
    def own_now():
        return sum(os.times()[:4])

    @staticmethod
    def busy_now():
        """Seconds that all processors together have worked for anyone, waiting for a disk left out."""
        try:
            with open("/proc/stat") as file:
                user, nice, system, idle, iowait, irq, softirq, steal = map(int, file.readline().split()[1:9])
        except OSError:
            return None
        return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")

    def report(self):
        others = None
        if self.busy is not None:
            spent = (time.monotonic() - self.start) * os.cpu_count()
            others = max(0.0, (self.busy_now() - self.busy - (self.own_now() - self.own)) / spent)
        return {"load_before": self.load, "load_after": os.getloadavg()[0], "others": others,
                "seconds": time.monotonic() - self.start,
                "quiet": self.load < 0.5 and (others is None or others < 0.05)}
