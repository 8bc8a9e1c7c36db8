# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
"""Looks at the processes of a run from outside, by the program thread-utilities."""

import contextlib
import json
import random
import subprocess
import threading
import time

LIMIT = 60  # seconds for one look


def name_of(process):
    with contextlib.suppress(OSError), open(f"/proc/{process}/comm", encoding="latin-1") as file:
        return file.read().strip()
    return ""


class Lookers:
    """Two threads: one takes stacks of a process at random, the other samples one for a second."""

    def __init__(self, program, processes, seed):
        self.program, self.processes = program, processes
        self.random = random.Random(seed)
        self.looks = self.samples = self.threads = self.with_frames = self.refused = 0
        self.wrong, self.kinds = [], {}
        self.stop = threading.Event()
        self.workers = [threading.Thread(target=self.repeat, args=(each,))
                        for each in (self.take_stacks, self.sample)]

    def __enter__(self):
        for worker in self.workers:
            worker.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        for worker in self.workers:
            worker.join()

    def repeat(self, action):
        while not self.stop.is_set():
            found = [each for each in self.processes()
                     if name_of(each) not in ("", "thread-utiliti")]
            if found:
                action(str(self.random.choice(found)))
            time.sleep(0.005)

    def ask(self, *words):
        """What it prints; nothing where it refuses, as it must where a process has just ended."""
        done = subprocess.run([self.program, *words], capture_output=True, check=False,
                              timeout=LIMIT)
        errors = done.stderr.decode(errors="replace")
        if done.returncode == 2 and len(errors.splitlines()) <= 2:
            self.refused += 1
            return ""
        ended_with_the_run = -9
        if done.returncode not in (0, 1, ended_with_the_run):
            self.wrong.append(f"{' '.join(words)}: status {done.returncode}\n{errors}")
        return done.stdout.decode(errors="replace")

    def take_stacks(self, process):
        """Mostly raw, which is quick; with all that is worked out in each sixth."""
        self.looks += 1
        if self.looks % 6:
            lines = self.ask("stacks", "--raw", process).splitlines()
            self.threads += len(lines)
            self.with_frames += sum(line.endswith("};") for line in lines)
            return
        for line in self.ask("stacks", "--json", process).splitlines(True):
            if not line.endswith("\n"):
                break  # ended with the run
            value = json.loads(line)
            if value["type"] == "wait":
                self.kinds[value["kind"]] = self.kinds.get(value["kind"], 0) + 1
            elif value["type"] in ("deadlock", "abandoned"):
                # These programs work: nobody in them waits for ever.
                self.wrong.append(f"{name_of(process)}: {value['text']}")

    def sample(self, process):
        answer = self.ask("sample", process, "--duration", "1", "--interval", "5")
        self.samples += len(answer) > 0

    def text(self):
        kinds = ", ".join(f"{count} {kind}" for kind, count in
                          sorted(self.kinds.items(), key=lambda each: -each[1]))
        return (f"{self.looks} looks, {self.with_frames} of {self.threads} stacks with frames, "
                f"{self.samples} samplings, {self.refused} refused; waits: {kinds or 'none'}")
