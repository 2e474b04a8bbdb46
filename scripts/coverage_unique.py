"""What each GoogleTest suite and case covers that no other does.

Reads BUILD/per-test.list ("<ctest number> <test name>") and each test's
BUILD/per-test/<number>.lcov (scripts/coverage.sh with PER_TEST=1), counts
the lines and branch outcomes of libraries/, toolkit/, plugins/ and tools/
each test reached, and prints per suite, then per case, how many of them
only it reaches.  A case with none unique is a candidate for removal unless
it asserts something exact that no other case does: coverage cannot say that.
"""
import collections
import os
import sys

build, root = sys.argv[1], sys.argv[2].rstrip("/") + "/"
folders = ("libraries/", "toolkit/", "plugins/", "tools/")


def read(path):
    lines, branches, name = set(), set(), None
    for raw in open(path, errors="replace"):
        tag, _, rest = raw.rstrip("\n").partition(":")
        if tag == "SF":
            rel = rest[len(root):] if rest.startswith(root) else ""
            name = rel if rel.startswith(folders) else None
        elif name is None:
            continue
        elif tag == "DA":
            line, count = rest.split(",")[:2]
            if count != "0":
                lines.add((name, int(line)))
        elif tag == "BRDA":
            line, block, branch, taken = rest.split(",")
            if taken not in ("-", "0"):
                branches.add((name, int(line), block, branch))
    return lines, branches


cases = {}
for entry in open(os.path.join(build, "per-test.list")):
    number, name = entry.split(None, 1)
    path = os.path.join(build, "per-test", number + ".lcov")
    cases[name.strip()] = read(path) if os.path.exists(path) else (set(), set())

suites = collections.defaultdict(lambda: [set(), set(), 0])
for name, (lines, branches) in cases.items():
    s = suites[name.split(".")[0]]
    s[0] |= lines
    s[1] |= branches
    s[2] += 1


def unique(groups):
    """For each group, the lines and branches no other group reaches."""
    seen_l, seen_b = collections.Counter(), collections.Counter()
    for lines, branches in groups.values():
        seen_l.update(lines)
        seen_b.update(branches)
    return {k: ({x for x in v[0] if seen_l[x] == 1}, {x for x in v[1] if seen_b[x] == 1})
            for k, v in groups.items()}


def where(items):
    files = collections.Counter(f for f, *_ in items)
    return " ".join("%s:%d" % (f.split("/")[-1], n) for f, n in files.most_common(4))


print("# suites: cases, lines reached, lines and branches only it reaches")
su = unique({k: (v[0], v[1]) for k, v in suites.items()})
for k in sorted(su, key=lambda k: (len(su[k][0]), len(su[k][1]))):
    print("%-44s %3d %6d %5d %5d  %s" % (k, suites[k][2], len(suites[k][0]), len(su[k][0]), len(su[k][1]),
                                         where(su[k][0] | su[k][1])))
print("\n# cases: lines reached, lines and branches only it reaches (against every other case)")
cu = unique(cases)
for k in sorted(cu, key=lambda k: (len(cu[k][0]), len(cu[k][1]), k)):
    print("%-80s %6d %5d %5d  %s" % (k, len(cases[k][0]), len(cu[k][0]), len(cu[k][1]), where(cu[k][0] | cu[k][1])))
