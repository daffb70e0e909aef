"""The protocol layer against a scripted engine: each answer form, read without a process.

The real engine's tests (test_client.py, test_app.py) are the end-to-end layer;
here the engine says exactly what the script says, also what it rarely says.
"""
import time
from contextlib import contextmanager

import pytest
from fake_engine import LATER, SILENT, Exit, ScriptedEngine, row

from corvanta.client import Solver
from corvanta.lines import NodeCount
from corvanta.protocol import (CAP_REASON, EngineDied, EngineError, EngineNotImplemented, EngineTimeout, NodeBlock,
                               Probs, Report, parse_categories, parse_category_names, parse_children, parse_line_freq,
                               parse_node, parse_probs)

BOARD = "2h Jh Qs 7c 4d"
CHILDREN = ["child 0:", "r:0:b50", "IP_DEC", BOARD, "50 0 100", "3 children", "flags: ",
            "child 1:", "r:0:c", "IP_DEC", BOARD, "0 0 100", "2 children", "flags: ", "END"]


def report_line(seconds, explo):
    return (f"#SOLVER:\trunning time: {seconds}\tEV OOP: 60.000\tEV IP: 40.000\tOOP's MES: 61.000\t"
            f"IP's MES: 41.000\tExploitable for: {explo}\tEND")


RESULTS = ["EV OOP: 60.000", "EV IP: 40.000", "OOP's MES: 61.000", "IP's MES: 41.000", "Exploitable for: 2.000", "END"]


@contextmanager
def scripted(*script, timeout=1.0):
    engine = ScriptedEngine(("is_ready", ["Corvanta (scripted)", "is_ready ok!"]), *script)
    with Solver(transport=engine, timeout=timeout) as s:
        yield s, engine
    assert not engine.script, f"never sent: {engine.script[0][0]!r}"


class TestAnswers:
    def test_an_answer_is_the_lines_before_its_marker(self):
        with scripted(("set_threads 1", ["set_threads ok!"]), ("# nothing comes back", []),
                      ("build_tree", ["#actions max 3", "build_tree ok!"]), ("is_ready", ["is_ready ok!"])) as (s, engine):
            assert s.banner == ["Corvanta (scripted)"]
            assert s.command("set_threads 1") == ["set_threads ok!"]
            assert s.command("# nothing comes back") == []
            assert s.commands(["build_tree", "is_ready"]) == ["build_tree ok!", "is_ready ok!"]
        assert engine.sent == ["is_ready", "echo corvanta-sync-1", "set_threads 1", "echo corvanta-sync-2",
                               "# nothing comes back", "echo corvanta-sync-3", "build_tree", "is_ready",
                               "echo corvanta-sync-4", "exit"]

    def test_an_error_raises_with_its_text_and_the_stream_stays_in_step(self):
        with scripted(("set_pot 1 2", ["ERROR: set_pot incorrect or missing argument"]),
                      ("set_threads 1", ["set_threads ok!"]),
                      ("solve_partial r:0", ["ERROR: solve_partial not implemented yet"]),
                      ("is_ready", ["is_ready ok!"])) as (s, _):
            with pytest.raises(EngineError, match="^set_pot incorrect or missing argument$") as e:
                s.commands(["set_pot 1 2", "set_threads 1"])
            assert type(e.value) is EngineError
            with pytest.raises(EngineNotImplemented):
                s.command("solve_partial r:0")
            assert s.command("is_ready") == ["is_ready ok!"]

    def test_bad_input_is_refused_before_anything_is_sent(self):
        with scripted() as (s, engine):
            for call in (lambda: s.command("is_ready\nexit"), lambda: s.strategy("r:0:call"),
                         lambda: s.range("OOP", "r:0:b\u0665\u0660"), lambda: s.ev("BB")):
                with pytest.raises(ValueError):
                    call()
            assert engine.sent == ["is_ready", "echo corvanta-sync-1"]


class TestQueries:
    def test_strategy_is_the_childrens_names_and_the_rows_up_to_end(self):
        with scripted(("show_children r:0", CHILDREN),
                      ("show_strategy r:0", [row("0.25"), row("0.75"), "END"])) as (s, _):
            strategy = s.strategy("r:0")
        assert list(strategy) == ["b50", "c"] and strategy.hand("KsAs") == {"b50": 0.25, "c": 0.75}

    def test_rows_of_the_wrong_number_or_length_are_engine_errors(self):
        with scripted(("show_children r:0", CHILDREN), ("show_strategy r:0", [row("1"), "END"]),
                      ("show_range OOP r:0", [row("1", 1325)])) as (s, _):
            with pytest.raises(EngineError, match="gave 1 rows for 2 actions"):
                s.strategy("r:0")
            with pytest.raises(EngineError, match="expected 1326 values, got 1325"):
                s.range("OOP")

    def test_an_equity_total_weighs_each_hand_by_range_and_matchups(self):
        # The engine's own total (0.375) weighs every hand alike; only hands 0 and 1 are held.
        equities, weights = row("0").split(), row("0").split()
        equities[0], weights[0], weights[1] = "1", "1", "3"
        with scripted(("calc_eq_node IP r:0:c", [" ".join(equities), row("2"), "0.375", "END"]),
                      ("show_range IP r:0:c", [" ".join(weights)]),
                      ("calc_ev OOP r:0", [row("nan"), row("0"), "END"])) as (s, _):
            assert s.equity("villain", "r:0:c").total == 0.25
            ev = s.ev(0)
        assert ev.values[0] != ev.values[0] and ev.matchups == (0.0,) * 1326

    def test_node_answers_read_into_plain_data(self):
        made = "nothing king_high ace_high"
        with scripted(("show_node r:0:b50", ["r:0:b50", "IP_DEC", BOARD, "50 0 100", "3 children", "flags: ", "END"]),
                      ("show_children r:0:c:c", ["child 0:", "r:0:c:c:As", "OOP_DEC", "2h Jh Qs As", "0 0 100",
                                                  "2 children", "flags: ", "END"]),
                      ("show_probs r:0", ["OOP 9 IP 4.5 b400 0 c 0.25 f 0.75"]), ("show_probs r:0:c:c", ["OOP 9 IP 0 "]),
                      ("calc_line_freq r:0:b50", ["0.125"]),
                      ("show_category_names", [made, "no_draw flush_draw ", "END"]),
                      ("show_categories " + BOARD, [row("2", 1325) + " -1", row("0"), "END"])) as (s, _):
            assert parse_node(s.command("show_node r:0:b50")) == NodeBlock("r:0:b50", "IP_DEC", BOARD.split(),
                                                                           [50.0, 0.0], 100.0)
            assert [k.path for k in parse_children(s.command("show_children r:0:c:c"))] == ["r:0:c:c:As"]
            assert parse_probs(s.command("show_probs r:0")) == Probs(9, 4.5, {"b400": 0, "c": 0.25, "f": 0.75})
            assert parse_probs(s.command("show_probs r:0:c:c")) == Probs(9, 0, {})
            assert parse_line_freq(s.command("calc_line_freq r:0:b50")) == 0.125
            assert parse_category_names(s.command("show_category_names")) == (made.split(), ["no_draw", "flush_draw"])
            made_of, draws = parse_categories(s.command("show_categories " + BOARD))
        assert (made_of[0], made_of[-1], len(draws)) == (2, -1, 1326)

    def test_node_count_reads_each_kind_by_street(self):
        figures = {"H_DEC": (1, 2, 3), "V_DEC": (4, 5, 6), "SPLIT": (7, 8, 9), "END": (10, 11, 12), "ROOT": (0, 1, 0)}
        answer = [line for kind, (f, t, r) in figures.items()
                  for line in (f"{kind}: {f + t + r}", f"FLOP  {f}", f"TURN  {t}", f"RIVER  {r}")]
        with scripted(("node_count", [*answer, "TOTAL: 80", "END"])) as (s, _):
            assert s.node_count() == NodeCount((1, 2, 3), (4, 5, 6), (7, 8, 9), (10, 11, 12), 2, 80)


class TestReports:
    def test_reports_are_taken_out_wherever_they_come(self):
        # The first report's count comes only after the marker of `go`; the last count inside calc_results.
        go = ["go ok!", "SOLVER: started", report_line(0.5, 9), LATER, "#25 iterations", "[####      ]",
              report_line(1.0, 4), "#storage 0 MB/s read", "#50 iterations", "SOLVER: stopped (required accuracy reached)"]
        with scripted(("set_accuracy 0.01 fraction", ["set_accuracy ok!"]), ("go", go),
                      ("calc_results", [*RESULTS[:3], "#60 iterations", *RESULTS[3:]])) as (s, _):
            seen = []
            results = s.solve(accuracy=0.01, progress=seen.append)
        assert [(r.seconds, r.exploitability, r.iteration) for r in seen] == [(0.5, 9, 25), (1.0, 4, 50)]
        assert (results.iterations, results.stop_reason) == (60, "required accuracy reached")
        assert (results.ev_oop, results.mes_ip, results.exploitability) == (60, 41, 2)
        assert s.reports == seen

    def test_the_block_form_and_a_report_without_a_count(self):
        block = ["SOLVER:", "running time: 2", "EV OOP: 1", "EV IP: 2", "OOP's MES: 3", "IP's MES: 4",
                 "Exploitable for: 5", "END"]
        with scripted(("go 10 steps", ["go ok!", *block, report_line(3, 1), LATER, "SOLVER: stopped (step limit)"]),
                      ("calc_results", RESULTS)) as (s, _):
            s.solve(steps=10)
        assert s.reports == [Report(2, 1, 2, 3, 4, 5), Report(3, 60, 40, 61, 41, 1)]
        assert s.stop_reason() == "step limit"

    def test_a_stop_is_requested_only_when_this_side_asked(self):
        stopped = [LATER, report_line(0.2, 5), "#25 iterations", "SOLVER: stopped (requested)"]
        with scripted(("go", ["go ok!", *stopped]), ("calc_results", RESULTS), ("go", ["go ok!", report_line(0.1, 7), "#50 iterations"]),
                      ("stop", ["stop ok!", *stopped])) as (s, engine):
            assert s.solve().stop_reason == CAP_REASON
            for report in s.iter_solve():
                break
            assert s.stop_reason() == "requested" and engine.sent[-2:] == ["stop", "echo corvanta-sync-5"]

    def test_a_solve_past_its_timeout_is_stopped_and_raises(self):
        with scripted(("go", ["go ok!", "SOLVER: started"]),
                      ("stop", ["stop ok!", LATER, "SOLVER: stopped (requested)"])) as (s, engine):
            with pytest.raises(EngineTimeout, match="the solve took more than 0.1 s"):
                s.solve(timeout=0.1)
            assert s.alive() and s.stop_reason() == "requested"


class TestFailures:
    def test_a_child_that_dies_raises_with_its_code_and_last_words(self):
        with scripted(("build_tree", ["#actions max 3", Exit(-11, ["out of memory"])])) as (s, engine):
            with pytest.raises(EngineDied, match="exit code -11: out of memory") as e:
                s.build_tree()
            assert e.value.returncode == -11 and not s.alive()
            with pytest.raises(EngineDied, match="no longer running"):
                s.command("is_ready")
        assert engine.sent[-1] == "echo corvanta-sync-2"  # nothing more, not even the exit

    def test_a_silent_child_is_killed_after_the_timeout(self):
        with scripted(("sleep 5000", [SILENT])) as (s, engine):
            start = time.monotonic()
            with pytest.raises(EngineTimeout, match="no answer to 'sleep 5000' within 0.2 s"):
                s.command("sleep 5000", timeout=0.2)
            assert time.monotonic() - start >= 0.2 and engine.killed and not s.alive()

    def test_a_solver_that_does_not_stop_is_killed(self):
        go = ["go ok!", report_line(0.1, 7), "#25 iterations"]
        with scripted(("go", go), ("stop", ["stop ok!"]), timeout=0.2) as (s, engine):
            solve = s.iter_solve()
            next(solve)
            with pytest.raises(EngineTimeout, match="didn't stop"):
                solve.close()  # what leaving the loop does
            assert engine.killed and not s.alive()

    def test_an_engine_that_cannot_start(self, tmp_path):
        with pytest.raises(EngineDied, match="can't start") as e:
            Solver(str(tmp_path / "none"))
        assert e.value.returncode is None
