#!/usr/bin/env python3
"""page.py FILE... > sweep.html: what the sweep has found, as one page that needs nothing else.

FILE is what a group of scenarios has written with --results. Scenarios stand below each other, the changes before which
they were cut beside each other; a table says what broke, another one what is excused, where, and why.
"""
import html
import json
import sys
from collections import Counter, defaultdict

STYLE = """
body { font: 14px/1.45 system-ui, sans-serif; margin: 2em auto; max-width: 76em; padding: 0 1em; color: #222; }
h1 { font-size: 1.5em; margin-bottom: .2em; } h2 { margin-top: 2em; } h3 { margin: 1.4em 0 .3em; }
table { border-collapse: collapse; } td, th { text-align: left; vertical-align: top; padding: .25em .8em .25em 0;
border-bottom: 1px solid #ddd; } td.n, th.n { text-align: right; }
.row { display: flex; align-items: baseline; margin: 1px 0; } .row > b { flex: 0 0 21em; font-weight: normal; }
.cuts { display: flex; flex-wrap: wrap; } .cuts i { width: 6px; height: 13px; margin: 0 1px 1px 0; }
i.ok { background: #b9dcb9; } i.excused { background: #efc35c; } i.broken { background: #d43a2f; }
i.untried { background: #e6e6e6; } .key i { display: inline-block; width: 10px; height: 12px; margin: 0 .3em 0 1em; }
.broken-text { color: #b0231a; } .small { color: #666; font-size: .9em; }
"""
KINDS = {"none": "no cut", "kill": "kill", "reboot": "reboot", "power": "power cut", "torn": "torn write",
         "stall": "thread held up", "held": "held up at a lock, a read or a tie", "again": "cut again"}


def text(value):
    return html.escape(str(value))


def plural(count, word):
    return f"{count:,} {word}" + ("" if count == 1 else "s")


def kinds_of(found):
    return [found["kind"]] + ([found["then"]] if "then" in found else [])


def worst(findings):
    if any(found["known"] is None for found in findings):
        return "broken"
    return "excused" if findings else "ok"


def cell(number, change, findings, tried):
    state = worst(findings) if tried else "untried"
    lines = [f"{number}: {change}"]
    for found in findings:
        lines.append(f'{" + ".join(KINDS[kind] for kind in kinds_of(found))}: {found["text"]}')
    return f'<i class="{state}" title="{text(chr(10).join(lines))}"></i>'


def scenario_row(scenario):
    at = defaultdict(list)
    for found in scenario["findings"]:
        at[found.get("before", 0)].append(found)
    cells = "".join(cell(number, change, at[number], (number - 1) % scenario["every"] == 0)
                    for number, change in enumerate(scenario["changes"], 1))
    whole = f'<i class="{worst(at[0])}" title="the run without a cut"></i>'
    return f'<div class="row"><b>{text(scenario["name"])}</b><div class="cuts">{whole}&nbsp;{cells}</div></div>'


def group_of(group):
    rows = "".join(scenario_row(scenario) for scenario in group["scenarios"])
    return f'<h3>{text(group["name"])}</h3>{rows}'


def broken_table(groups):
    seen = Counter()
    first = {}
    for group in groups:
        for scenario in group["scenarios"]:
            for found in scenario["findings"]:
                if found["known"] is not None:
                    continue
                key = (scenario["name"], found["invariant"], found["text"])
                seen[key] += 1
                first.setdefault(key, found)
    if not seen:
        return "<p>Nothing.</p>"
    rows = ""
    for key, times in seen.items():
        where = first[key]
        change = f' {where["before"]}, {where["change"]}' if "before" in where else ""
        rows += (f'<tr><td>{text(key[0])}<td>{text(key[1])}<td class="broken-text">{text(key[2])}'
                 f'<td>{text(" + ".join(KINDS[kind] for kind in kinds_of(where)))}{text(change)}<td class="n">{times}')
    return ("<table><tr><th>scenario<th>invariant<th>what broke<th>first before change<th class=n>times" + rows +
            "</table>")


def excused_table(groups):
    rows = ""
    for group in groups:
        for each in group["exceptions"]:
            kinds = ", ".join(KINDS[kind] for kind in each["kinds"])
            rows += (f'<tr><td>{text(", ".join(each["scenarios"]))}<td>{text(kinds)}'
                     f'<td>{text(each["outcome"])}<br><span class="small">against: {text(each["invariant"])}</span>'
                     f'<td>{text(each["reason"])}<td class="n">{each["times"]}')
    return ("<table><tr><th>scenario<th>cut<th>outcome<th>why it stays<th class=n>times" + rows + "</table>")


def totals(groups):
    scenarios = [scenario for group in groups for scenario in group["scenarios"]]
    cuts = Counter()
    for scenario in scenarios:
        cuts.update(scenario["cuts"])
    found = [found for scenario in scenarios for found in scenario["findings"]]
    broken = sum(each["known"] is None for each in found)
    rows = "".join(f'<tr><td>{KINDS[kind]}<td class="n">{count:,}' for kind, count in cuts.items())
    pairs = sum(scenario["pairs"] for scenario in scenarios)
    lives = sum(scenario["lives"] for scenario in scenarios)
    recoveries = sum(scenario["recoveries"] for scenario in scenarios)
    changes = sum(len(scenario["changes"]) for scenario in scenarios)
    return (f'<p><b>{plural(len(scenarios), "scenario")}</b>, {changes:,} changes, {sum(cuts.values()):,} cuts, '
            f'{lives:,} lives; {recoveries:,} recoveries differ from each other; {pairs:,} were cut again. '
            f'<b>{broken:,} broken</b>, {len(found) - broken:,} excused.</p>'
            f'<table><tr><th>kind of cut<th class=n>tried{rows}</table>')


def page(groups):
    key = ('<p class="key"><i class="ok"></i>all holds<i class="excused"></i>something is excused'
           '<i class="broken"></i>broken<i class="untried"></i>not tried</p>')
    return ('<!DOCTYPE html><html lang="en"><meta charset="utf-8"><title>The sweep</title>'
            f'<style>{STYLE}</style>'
            '<h1>The whole agent, cut before every change it makes</h1>'
            '<p>A row is a scenario, a cell one change: the agent was killed, rebooted, cut off from power and held up '
            'before it, started again, and looked at when it had come to rest. The first cell of a row is the run '
            'without a cut. Point at a cell to read what it is.</p>' +
            totals(groups) +
            '<h2>Broken</h2>' + broken_table(groups) + '<h2>Scenarios and cuts</h2>' + key +
            "".join(group_of(group) for group in groups) +
            '<h2>Excused</h2><p>Each by its scenario, its kinds of cut and this very outcome, no other.</p>' +
            excused_table(groups) + '</html>\n')


if __name__ == "__main__":
    read = []
    for name in sys.argv[1:]:
        with open(name, encoding="utf-8") as file:
            read.append(json.load(file))
    sys.stdout.write(page(read))
