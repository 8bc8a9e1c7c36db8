#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
"""What the commands stacks and sample say of a process that says itself what is to be said.

    process_test.py THREAD-UTILITIES WAITING-PROGRAM
"""

import fnmatch
import gzip
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM, TARGET = sys.argv[1:3]
DEADLINE = 120  # seconds, for what should take none


def run(*words, **options):
    return subprocess.run([PROGRAM, *map(str, words)], capture_output=True, text=True,
                          timeout=DEADLINE, check=False, **options)


def content(name):
    with open(name, "rb") as file:
        return file.read()


class Target:
    """A program that waits, until its input ends."""

    def __init__(self, mode):
        self.process = subprocess.Popen([TARGET, mode], stdin=subprocess.PIPE, text=True,
                                        stdout=subprocess.PIPE)
        self.words, self.knots = {}, []
        for line in iter(self.process.stdout.readline, ""):
            if line.startswith("ready "):
                self.id = int(line.split()[1])
                break
            name, words = line.rstrip("\n").split("\t")
            if name:
                self.words[name] = words
            else:
                self.knots.append(words)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(DEADLINE)
        self.process.stdout.close()


def until(condition):
    end = time.monotonic() + DEADLINE
    while not condition() and time.monotonic() < end:
        time.sleep(0.02)
    return condition()


class Stacks(unittest.TestCase):
    maxDiff = None

    def test_waits_are_told_in_words(self):
        with Target("waits") as target:
            def differences():
                done = run("stacks", "--json", target.id)
                lines = [json.loads(line) for line in done.stdout.splitlines()]
                names = {thread["id"]: thread["name"] for line in lines
                         for thread in line.get("threads", []) if line["type"] == "threads"}
                self.waits = {names[line["id"]]: line for line in lines if line["type"] == "wait"}
                self.knots = sorted(line["text"] for line in lines
                                    if line["type"] in ("deadlock", "abandoned"))
                # Where symbols do not tell what a function waits for, it is a guess.
                return {name: (words, self.waits.get(name, {}).get("text"))
                        for name, words in target.words.items()
                        if not fnmatch.fnmatchcase(self.waits.get(name, {}).get("text", "")
                                                   .removeprefix("perhaps "), words)}

            # The last of its threads may be about to wait.
            until(lambda: not differences() and self.knots == sorted(target.knots))
            self.assertEqual(differences(), {})
            self.assertEqual(self.knots, sorted(target.knots))
            self.assertLessEqual({name for name, wait in self.waits.items() if wait["guess"]},
                                 {"guest"})
            self.text_says_it_first(target)
            self.raw_can_be_read(target)

    def text_says_it_first(self, target):
        text = run("stacks", target.id).stdout
        begin = text.index("deadlock: parse 1 waits for parse 2 waits for parse 1\n")
        self.assertRegex(text[begin:], r"\A.*\nThread \d+: parse 1\n"
                         r"  waits for the mutex at 0x\w+, which parse 2 holds\n"
                         r"(    .*\n)*?.*oppositeOrder.*\n(    .*\n)*\n"
                         r"Thread \d+: parse 2\n")
        heads = re.findall(r"(?m)^(deadlock|abandoned|Thread \d+|\d+ threads): (.*)", text)
        kinds = [kind for kind, _ in heads]
        self.assertEqual(kinds[:4:3], ["deadlock", "deadlock"])
        names = [name for kind, name in heads if kind.startswith("Thread")]
        self.assertEqual(len(names), len(set(names)), "a thread stands there twice")
        self.assertLessEqual(set(target.words), set(names))

    def raw_can_be_read(self, target):
        raw = run("stacks", "--raw", target.id).stdout
        again = run("read", "--json", "--pid", target.id, input=raw)
        threads = [json.loads(line) for line in again.stdout.splitlines()][0]["threads"]
        functions = {thread["name"]: {place["function"] for frame in thread["frames"]
                                      for place in frame["names"]} for thread in threads}
        self.assertLess(set(target.words), set(functions))
        self.assertTrue(any("oppositeOrder" in each for each in functions["parse 1"]), functions)

    def test_threads_that_run_and_threads_that_do_not(self):
        with Target("spin") as target:
            # All have begun what they do.
            stands = (r"spinner 1.*\n(  \(\d+, \d+\)\n)?  runs\n"
                      r"(    std::.*\n)*    .*\(.*waiting_program\.cpp:\d+\)",
                      r"Thread \d+: idler\n  waits for a signal\n",
                      r"Thread \d+: waiting_program\n  reads from pipe ")
            self.assertTrue(until(lambda: all(
                re.search(each, run("stacks", target.id).stdout) for each in stands)))
            watch = subprocess.Popen([PROGRAM, "stacks", "--watch", "1", str(target.id)],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            lines = iter(watch.stdout.readline, "")
            moved = next(line for line in lines if line.startswith("after "))
            self.assertEqual(moved, "after 1 s: 2 of 4 threads have not moved since the first "
                             "look: idler, waiting_program\n")
        self.assertIn("the process has ended\n", lines)
        watch.wait(DEADLINE)
        watch.stdout.close()

    def test_nobody_who_works_is_accused(self):
        with Target("contend") as target:
            for _ in range(30):
                done = run("stacks", "--json", target.id)
                lines = [json.loads(line) for line in done.stdout.splitlines()]
                self.assertEqual([line for line in lines if line["type"] in
                                  ("deadlock", "abandoned")], [])
                self.assertTrue(any(line["type"] == "wait" for line in lines), done)

    def test_what_cannot_be_looked_at(self):
        for process, words in (("999999999", "999999999"), ("0", ""), ("x", "pid = x")):
            for command in ("stacks", "sample"):
                done = run(command, process)
                self.assertEqual((done.returncode, done.stdout), (2, ""), (command, process))
                self.assertIn(words, done.stderr)
                self.assertLessEqual(len(done.stderr.splitlines()), 2, done.stderr)
        done = run("sample", os.getpid(), "--thread", "1")
        self.assertEqual((done.returncode, done.stderr),
                         (2, f"thread-utilities: process {os.getpid()} has no thread 1\n"))
        # Its debugger has it, but it stands still.
        with Target("traced") as target:
            done = run("stacks", target.id)
            self.assertRegex(done.stdout, r"\n  is being traced by process "
                             rf"{target.process.pid} \(waiting_program\)\n    .*raise")


class Sample(unittest.TestCase):
    def start(self, target, *words):
        """A run that has taken samples: its worker has slept between them."""
        sampler = subprocess.Popen([PROGRAM, "sample", str(target.id), "--duration", "100000",
                                    *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True)

        def has_slept():
            for task in os.listdir(f"/proc/{sampler.pid}/task"):
                status = content(f"/proc/{sampler.pid}/task/{task}/status").decode("latin-1")
                switches = int(re.search(r"\nvoluntary_ctxt_switches:\t(\d+)", status)[1])
                if "stack sampler" in status and switches > 60:
                    return True
            return False
        self.assertTrue(until(has_slept))
        return sampler

    def finish(self, sampler, words):
        out, errors = sampler.communicate(timeout=DEADLINE)
        self.assertIn(sampler.returncode, (0, 1), errors)
        self.assertRegex(errors, words + r" after .*: \d+ samples due, \d+ taken, ")
        return out

    def test_all_threads_until_ctrl_c(self):
        with Target("spin") as target:
            sampler = self.start(target)
            sampler.send_signal(signal.SIGINT)
            out = self.finish(sampler, "interrupted")
        for name in ("spinner 1", "spinner 2", "idler", "waiting_program"):
            self.assertRegex(out, rf"Thread \d+ {name}: \d+ samples?\n")

    def test_a_process_that_ends_keeps_its_names(self):
        with Target("spin") as target:
            sampler = self.start(target)
            target.process.stdin.close()
            target.process.wait(DEADLINE)
            out = self.finish(sampler, "the process ended")
        self.assertIn("rest()", out)
        self.assertRegex(out, r"Thread \d+ spinner 2: \d+ samples?\n")

    def test_formats(self):
        with Target("spin") as target, tempfile.TemporaryDirectory() as folder:
            spinner = next(task for task in os.listdir(f"/proc/{target.id}/task")
                           if content(f"/proc/{target.id}/task/{task}/comm") == b"spinner 1\n")
            readers = {
                ".txt": lambda file: run("read", file).stdout,
                ".json": lambda file: str(json.loads(content(file).splitlines()[0])["threads"]),
                ".folded": lambda file: content(file).decode(),
                ".html": lambda file: content(file).decode(),
                ".pb.gz": lambda file: gzip.decompress(content(file)).decode(errors="replace"),
            }
            for ending, text_of in readers.items():
                file = folder + "/a" + ending
                done = run("sample", target.id, "--thread", spinner, "--duration", 1, "-o", file)
                self.assertIn(done.returncode, (0, 1), done.stderr)
                self.assertIn("spinner 1", text_of(file))
                self.assertNotIn("spinner 2", text_of(file))
            for file, words in ((folder + "/a.none", "which format"),
                                (folder + "/none/a.txt", "No such file")):
                done = run("sample", target.id, "-o", file)
                self.assertEqual(done.returncode, 2)
                self.assertIn(words, done.stderr)


unittest.main(argv=sys.argv[:1])
