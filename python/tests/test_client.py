import collections
import itertools
import json
import math
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from corvanta.cards import HAND_CARDS, HAND_NAMES, HAND_ORDER_TEXT, parse_cards
from corvanta.client import EngineDied, EngineError, EngineTimeout, Solver
from corvanta.lines import StreetRules, TreeRules, lines
from corvanta.ranges import parse_range

ROOT = Path(__file__).resolve().parents[2]
OOP = "TT-88,JJ:0.5,77:0.5,AQ,KQ,QTs,AJs,KJs,JTs,T9s,98s,A5s-A2s"
IP = "TT+,99:0.5,AK,AQ,KQ,AJs,QJs,JTs,T9s,87s,A2s+"
RIVER = TreeRules(100, 400, [StreetRules.of("33%, 75%", "2.5x, a")], first_street=3)


def river_game(s):
    s.set_range("OOP", OOP)
    s.set_range("IP", IP)
    s.set_board("Qs Jh 2h 7c 4d")
    s.set_pot(100)
    s.add_lines(lines(RIVER))
    s.build_tree()


@pytest.fixture(scope="module")
def solved(engine):
    """A river game solved once; the queries below read it."""
    with Solver(engine) as s:
        river_game(s)
        seen = []
        results = s.solve(accuracy=0.002, progress=seen.append)
        yield s, results, seen


def numbers(line):
    return [float(x) for x in line.split()]


class TestSolve:
    def test_hand_order_is_the_engines(self, engine):
        with Solver(engine) as s:
            assert " ".join(s.hand_order()) == HAND_ORDER_TEXT
        assert (HAND_NAMES[0], HAND_NAMES[1322], HAND_NAMES[1325]) == ("2d2c", "AsKs", "AsAh")

    def test_river_game_end_to_end(self, solved):
        s, results, seen = solved
        assert seen and all(r.iteration and r.iteration % 25 == 0 for r in seen)
        assert results.stop_reason in ("required accuracy reached", "iteration cap reached")
        assert results.iterations >= seen[-1].iteration
        assert results.exploitability <= max(0.2, seen[-1].exploitability)
        assert results.ev_oop + results.ev_ip == pytest.approx(100, abs=0.01)
        raw = dict(line.split(": ") for line in s.command("calc_results") if line != "END")
        assert raw == {"EV OOP": f"{results.ev_oop:.3f}", "EV IP": f"{results.ev_ip:.3f}",
                       "OOP's MES": f"{results.mes_oop:.3f}", "IP's MES": f"{results.mes_ip:.3f}",
                       "Exploitable for": f"{results.exploitability:.3f}"}

    def test_leaving_the_reports_early_stops_the_solver(self, engine):
        with Solver(engine) as s:
            river_game(s)
            for report in s.iter_solve(accuracy=0, steps=100000):
                break
            assert s.stop_reason() == "requested"
            assert s.command("is_ready") == ["is_ready ok!"]

    def test_a_run_ended_by_the_iteration_cap_says_so(self, engine):
        # The engine calls this stop "requested" too; nobody asked for it here.
        with Solver(engine) as s:
            river_game(s)
            s.set_threads(1)
            first = s.solve(accuracy=0)
            again = s.solve(accuracy=0)  # at the cap already: stops before a step
        assert (first.iterations, first.stop_reason) == (9000, "iteration cap reached")
        assert (again.iterations, again.stop_reason) == (9000, "iteration cap reached")


class TestQueries:
    def test_strategy_rows_are_the_raw_rows(self, solved):
        s = solved[0]
        strategy = s.strategy("r:0")
        assert list(strategy) == s.children("r:0") == ["b75", "b33", "c"]
        raw = [numbers(l) for l in s.command("show_strategy r:0") if l != "END"]
        assert [list(strategy[a]) for a in strategy] == raw
        weights = parse_range(OOP)
        hand = HAND_NAMES.index("AsQd")
        assert weights[hand] and sum(strategy.hand("AsQd").values()) == pytest.approx(1)
        assert sum(strategy.hand("QsTs").values()) == 0  # a hand on the board

    def test_range_after_a_bet_is_range_times_strategy(self, solved):
        s = solved[0]
        strategy = s.strategy("r:0")
        bet = s.range("OOP", "r:0:b33").values
        assert bet == pytest.approx([w * p for w, p in zip(parse_range(OOP), strategy["b33"])])
        assert list(s.range("IP").values) == parse_range(IP)

    def test_ev_and_equity_are_the_raw_rows(self, solved):
        s = solved[0]
        ev = s.ev("OOP", "r:0")
        raw = s.command("calc_ev OOP r:0")
        same = lambda a, b: all(x == y or (math.isnan(x) and math.isnan(y)) for x, y in zip(a, b))
        assert same(ev.values, numbers(raw[0])) and same(ev.matchups, numbers(raw[1]))
        eq = s.equity("IP")
        assert all(0 <= x <= 1 for x, m in zip(eq.values, eq.matchups) if m > 0)
        node = s.equity("OOP", "r:0:c")
        assert 0 <= node.total <= 1


def rank5(cards):
    """A five-card hand's strength as a tuple that sorts like the hands do."""
    ranks = sorted((c // 4 for c in cards), reverse=True)
    groups = sorted(collections.Counter(ranks).items(), key=lambda kv: (kv[1], kv[0]), reverse=True)
    shape, order = [n for _, n in groups], [r for r, _ in groups]
    flush = len({c % 4 for c in cards}) == 1
    straight = len(groups) == 5 and (ranks[0] - ranks[4] == 4 or ranks == [12, 3, 2, 1, 0])
    high = 3 if ranks == [12, 3, 2, 1, 0] else ranks[0]
    if straight:
        return (8 if flush else 4, high)
    if flush:
        return (5, *ranks)
    category = {(4, 1): 7, (3, 2): 6, (3, 1, 1): 3, (2, 2, 1): 2, (2, 1, 1, 1): 1}.get(tuple(shape), 0)
    return (category, *order)


def brute_equity(board, mine, theirs):
    """The equity of range `mine` against `theirs` over every run-out: each pair of
    hands that can meet counts with the product of their weights."""
    rest = [c for c in range(52) if c not in board]
    won = total = 0.0
    for runout in itertools.combinations(rest, 5 - len(board)):
        cards = set(board) | set(runout)

        def strengths(weights):
            return {h: max(rank5(five) for five in itertools.combinations([*cards, *HAND_CARDS[h]], 5))
                    for h, w in enumerate(weights) if w > 0 and not cards & set(HAND_CARDS[h])}

        ours, others = strengths(mine), strengths(theirs)
        for h, a in ours.items():
            for o, b in others.items():
                if not set(HAND_CARDS[h]) & set(HAND_CARDS[o]):
                    w = mine[h] * theirs[o]
                    won += w * (1.0 if a > b else 0.5 if a == b else 0.0)
                    total += w
    return won / total


def small_turn_game(s):
    s.set_range("OOP", "QQ,JJ,AQs,KQs,T9s,A5s")
    s.set_range("IP", "AA,QJs,KQs,JTs,98s")
    s.set_board("Qs Jh 2h 7c")
    s.set_pot(100)
    s.add_lines(lines(TreeRules(100, 150, [StreetRules.of("50%", max_raises=0), StreetRules.of("a", max_raises=0)],
                                first_street=2)))
    s.build_tree()
    s.set_threads(1)
    s.solve(accuracy=0, steps=50)


class TestEquityTotal:
    """The equity of a whole range at a node, against a plain enumeration of its matchups."""

    def check(self, s, path):
        board = parse_cards(s.command(f"show_node {path}")[2].replace(" ", ""))
        for me, other in (("OOP", "IP"), ("IP", "OOP")):
            want = brute_equity(board, s.range(me, path).values, s.range(other, path).values)
            assert s.equity(me, path).total == pytest.approx(want, abs=1e-6), (path, me)

    def test_river_game_at_the_root(self, solved):
        s = solved[0]
        self.check(s, "r:0")
        assert s.equity("OOP").total == s.equity("OOP", "r:0").total

    def test_turn_game_after_a_bet(self, engine):
        with Solver(engine) as s:
            small_turn_game(s)
            assert s.range("OOP", "r:0:b50").values != s.range("OOP", "r:0").values  # a range the bet changed
            self.check(s, "r:0:b50")


class TestFailures:
    def test_error_answer_raises_with_the_engines_text(self, engine):
        with Solver(engine) as s:
            with pytest.raises(EngineError, match="^set_pot incorrect or missing argument$"):
                s.command("set_pot 1 2")
            with pytest.raises(EngineError, match="^build_tree ranges not set$"):
                s.build_tree()
            assert s.command("is_ready") == ["is_ready ok!"]

    def test_bad_input_is_refused_before_sending(self, engine):
        with Solver(engine) as s:
            for call in (lambda: s.set_board("Qs Qs Jh"), lambda: s.set_range("BB", "AA"),
                         lambda: s.set_range("OOP", "AA,ZZ"), lambda: s.add_lines(["add_line 30 10"]),
                         lambda: s.strategy("r:0:b 30"), lambda: s.command("is_ready\nexit")):
                with pytest.raises(ValueError):
                    call()

    def test_killed_child_raises_with_its_exit_code(self, engine):
        with Solver(engine) as s:
            os.kill(s.pid, signal.SIGKILL)
            with pytest.raises(EngineDied) as e:
                s.command("is_ready")
            assert e.value.returncode == -signal.SIGKILL

    def test_silent_engine_times_out_and_is_stopped(self, engine):
        with Solver(engine, timeout=0.3) as s:
            with pytest.raises(EngineTimeout):
                s.command("sleep 5000")
            assert not s.alive()

    def test_context_manager_ends_the_child(self, engine):
        with Solver(engine) as s:
            pass
        assert s._proc.returncode == 0


def test_command_line_solves_the_example(engine, tmp_path):
    out = tmp_path / "result.json"
    run = subprocess.run([sys.executable, "-m", "corvanta", "solve", str(ROOT / "examples" / "turn.toml"),
                          "--out", str(out), "--bin", engine], cwd=ROOT / "python",
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stderr
    result = json.loads(out.read_text())
    assert result["results"]["exploitability_share"] <= 0.003
    assert "iteration" in run.stderr and "exploitable" in run.stderr
    if result["root_strategy"] is not None:
        hands = result["root_strategy"]["hands"]
        assert all(sum(h.values()) == pytest.approx(1) for h in hands.values())


def test_query_answers_are_read_in_their_documented_forms():
    with Solver(str(Path(__file__).with_name("fake_engine.py"))) as s:
        strategy = s.strategy("r:0")
        assert dict(strategy.hand("AsKs")) == {"b50": 0.25, "c": 0.75}
        assert s.range("IP", "r:0:c").values == (0.5,) * 1326
        ev = s.ev("OOP")
        assert math.isnan(ev.values[0]) and ev.matchups == (0.0,) * 1326
        assert s.equity("OOP").matchups[5] == 12
        assert s.equity("OOP", "r:0:c").total == 0.25  # every hand 0.25, whatever the weights
