import re
from pathlib import Path

import pytest

from corvanta.client import Solver
from corvanta.lines import RulesError, StreetRules, TreeRules, lines, node_count, parse_sizes, summary

BENCH = Path(__file__).resolve().parents[3] / "shared" / "bench-games"


def bench_rules(text):
    """The rules of a bench game, read from the description in its header."""
    m = re.search(r"board ([^,]+), starting pot (\d+), effective stack (\d+)", text)
    board, pot, stack = m[1].split(), int(m[2]), int(m[3])
    assert "No automatic all-in thresholds, no donk bets" in text
    streets = [StreetRules.of(bet, rai, None, int(n)) for bet, rai, n in re.findall(
        r'# \w+ sizes \(both players\): bet "([^"]*)", raise "([^"]*)", max raises per street (\d+)', text)]
    return board, TreeRules(pot, stack, streets, first_street=len(board) - 2)


@pytest.mark.parametrize("game", ["river", "turn", "flop"])
def test_bench_games_come_out_line_for_line(game):
    path = BENCH / f"{game}.txt"
    if not path.exists():
        pytest.skip(f"{path} is not there")
    text = path.read_text()
    _, rules = bench_rules(text)
    assert lines(rules) == [l for l in text.splitlines() if l.startswith("add_line")]
    counts = summary(rules)
    header = re.search(r"# (\d+) decision nodes, (\d+) showdown lines, (\d+) fold terminals", text)
    assert (counts["decisions"], counts["showdowns"], counts["folds"]) == tuple(map(int, header.groups()))


def turn_rules(turn_max=1, river_max=1, **river):
    return TreeRules(60, 270, [StreetRules.of("50%, 100%", "2.5x, a", None, turn_max),
                               StreetRules.of(river.pop("bet", "50%"), "3x, a", river.pop("donk", None),
                                              river_max)], first_street=2, **river)


RULE_SETS = {
    "turn, donk sizes as bets": ("Qs Jh 2h 7c", turn_rules()),
    "turn, no donk": ("Qs Jh 2h 7c", turn_rules(donk=False)),
    "turn, donk 25% and 2e": ("Qs Jh 2h 7c", turn_rules(donk="25%, 2e")),
    "turn, all-in at 40% of the stack": ("Qs Jh 2h 7c", turn_rules(bet="75%", allin_threshold=0.4)),
    "turn, 2 raises": ("Qs Jh 2h 7c", turn_rules(turn_max=2, river_max=2)),
    "turn, IP bets its own sizes and never raises": ("Qs Jh 2h 7c", TreeRules(
        60, 270, [StreetRules.of("50%, 100%", "2.5x, a", None, 1, ip_bet="33%", ip_raises=""),
                  StreetRules.of("50%", "a", None, 1, ip_bet="75%, 150%")], first_street=2)),
    "flop, 2 raises, all-in threshold, min bet": ("Qs Jh 2h", TreeRules(
        20, 200, [StreetRules.of("33%", "3x", None, 2), StreetRules.of("66%", "2.5x", False, 1),
                  StreetRules.of("1e", "a", "33%", 1)], first_street=1, allin_threshold=0.6, min_bet=10)),
}


@pytest.mark.parametrize("name", RULE_SETS)
def test_node_count_equals_the_engines(engine, name):
    board, rules = RULE_SETS[name]
    with Solver(engine) as s:
        s.set_range("OOP", "QQ+,AK")
        s.set_range("IP", "JJ-TT,AQs")
        s.set_board(board)
        s.set_pot(int(rules.pot))
        s.add_lines(lines(rules))
        s.build_tree()
        assert s.node_count() == node_count(rules)


def test_donk_and_threshold_change_the_tree():
    sizes = {name: len(lines(rules)) for name, (_, rules) in RULE_SETS.items()}
    assert len({sizes["turn, donk sizes as bets"], sizes["turn, no donk"], sizes["turn, donk 25% and 2e"]}) == 3
    assert sizes["turn, all-in at 40% of the stack"] < len(lines(turn_rules(bet="75%")))


def test_ip_sizes_are_ips_alone():
    # River, pot 100: OOP bets 50 and raises all-in; IP bets 75 and can't raise.
    rules = TreeRules(100, 200, [StreetRules.of("50%", "a", ip_bet="75%", ip_raises="")], first_street=3)
    assert lines(rules) == ["add_line 0 0", "add_line 0 75 75", "add_line 0 75 200 200", "add_line 50 50"]
    same = TreeRules(100, 200, [StreetRules.of("50%", "a")], first_street=3)
    assert lines(same) == ["add_line 0 0", "add_line 0 50 50", "add_line 0 50 200 200",
                           "add_line 50 50", "add_line 50 200 200"]
    with pytest.raises(RulesError, match="multiplies"):
        TreeRules(100, 200, [StreetRules.of("50%", ip_bet="2x")], first_street=3).check()
    with pytest.raises(RulesError, match="geometric"):
        TreeRules(100, 200, [StreetRules.of("50%", ip_raises="2e")], first_street=3).check()


def test_sizes_are_rounded_capped_and_merged():
    # River, pot 100, stack 150: 33% -> 33, 75% -> 75; a raise of 2.5x the bet of 75 caps at the stack.
    rules = TreeRules(100, 150, [StreetRules.of("33%, 75%, 150%", "2.5x, a")], first_street=3)
    assert lines(rules)[:6] == ["add_line 0 0", "add_line 0 33 33", "add_line 0 33 83 83",
                                "add_line 0 33 150 150", "add_line 0 75 75", "add_line 0 75 150 150"]


@pytest.mark.parametrize("text,bad", [("50", "'50'"), ("33%, big", "'big'"), ("0%", "'0%'")])
def test_bad_sizes_are_named(text, bad):
    with pytest.raises(RulesError, match=bad):
        parse_sizes(text)


def test_rules_that_make_no_game():
    with pytest.raises(RulesError, match="raises"):
        TreeRules(100, 400, [StreetRules.of("2.5x")], first_street=3).check()
    with pytest.raises(RulesError, match="needs rules for 2 streets"):
        TreeRules(100, 400, [StreetRules.of("50%")], first_street=2).check()
