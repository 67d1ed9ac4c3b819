#!/usr/bin/env python3
"""What FTS5 prefix phrases cost without a prefix index, by corpus size.

Builds a throw-away FTS5 table shaped like the daemon's items_text (same
tokenizer, titles of 2-4 words, keywords 0-3, bodies of 10-30 words in 60%
of the rows, words Zipf-like from 20,000 generated ones) and times the
full-text candidate read (the 1,000 most recent matches) for one- and
two-word texts. It shows why one-word prefixes of frequent words are read
from word_prefix instead, and what texts of several words still cost.

    bench/scale/fts_prefix_cost.py [ITEMS]        (default 100000)
"""
import bisect
import itertools
import os
import random
import sqlite3
import sys
import tempfile
import time

items = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
random.seed(1)
letters = "abcdefghijklmnopqrstuvwxyz"
vocab = ["".join(random.choice(letters) for _ in range(random.randint(3, 10))) for _ in range(20_000)]
cumulative = list(itertools.accumulate(1 / (i + 1) for i in range(len(vocab))))


def word():
    return vocab[bisect.bisect(cumulative, random.random() * cumulative[-1])]


def words(low, high):
    return " ".join(word() for _ in range(random.randint(low, high)))


with tempfile.TemporaryDirectory() as scratch:
    db = sqlite3.connect(os.path.join(scratch, "fts.db"))
    db.execute("CREATE VIRTUAL TABLE t USING fts5(title, keywords, body, words, "
               "tokenize = 'unicode61 remove_diacritics 2')")
    start = time.time()
    db.executemany("INSERT INTO t(rowid, title, keywords, body, words) VALUES(?, ?, ?, ?, '')",
                   ((i + 1, words(2, 4), words(0, 3), words(10, 30) if random.random() < 0.6 else "")
                    for i in range(items)))
    db.commit()
    print(f"{items} rows built in {time.time() - start:.1f} s")
    frequent, other = vocab[0], vocab[500]
    texts = [f'"{frequent}"*', f'"{frequent}"* "r"*', f'"{frequent}"* "re"*', f'"{frequent}" "r"*',
             f'"{other}"* "{frequent[:2]}"*', '"r"*']
    print("| match expression | ms (median of 5) | candidates |\n| --- | ---: | ---: |")
    for text in texts:
        times = []
        for _ in range(5):
            start = time.perf_counter()
            count = db.execute("SELECT count(*) FROM (SELECT rowid FROM t WHERE t MATCH ? "
                               "ORDER BY rowid DESC LIMIT 1000)", (text,)).fetchone()[0]
            times.append((time.perf_counter() - start) * 1000)
        print(f"| `{text}` | {sorted(times)[2]:.1f} | {count} |")
