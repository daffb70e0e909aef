import random

import pytest

from corvanta.cards import HAND_NAMES
from corvanta.ranges import SHAPE_HANDS, RangeError, parse_range, range_text


def weight_of(weights, *names):
    return [weights[HAND_NAMES.index(n)] for n in names]


# Text, the total weight counted by hand, and hands that must be in or out.
FORMS = [
    ("AA", 6, ["AsAh", "Ad Ac"], ["KsKh"]),
    ("77+", 8 * 6, ["7d7c", "AsAd"], ["6s6h"]),
    ("TT-66", 5 * 6, ["TsTd", "6h6c"], ["JsJd", "5s5h"]),
    ("66-tt", 5 * 6, ["TsTd"], ["5s5h"]),
    ("AKs", 4, ["AsKs", "AcKc"], ["AsKh"]),
    ("AKo", 12, ["AsKh"], ["AsKs"]),
    ("AK", 16, ["AsKs", "AdKc"], []),
    ("A2s+", 12 * 4, ["Ah2h", "AhKh"], ["Ah2c", "KhQh"]),
    ("K9o-K6o", 4 * 12, ["Ks9h", "Kc6d"], ["Ks5h", "KsTh", "Ks9s"]),
    ("AT+", 4 * 16, ["AsTs", "AsKd"], ["As9s"]),
    ("KT-K7", 4 * 16, ["KsTs", "Kd7c"], ["Ks6s", "KsJs"]),
    ("AsKs", 1, ["AsKs"], ["AhKh"]),
    ("Td9d", 1, ["Td9d"], ["Th9h"]),
    (" aks , kk ", 10, ["AsKs", "KsKh"], []),
    ("AK:0.5,QQ", 8 + 6, ["QsQh"], []),
    ("AA,AsAh:0", 5, ["AdAc"], ["AsAh"]),
    ("", 0, [], []),
]


class TestForms:
    @pytest.mark.parametrize("text,total,inside,outside", FORMS)
    def test_weights_counted_by_hand(self, text, total, inside, outside):
        w = parse_range(text)
        assert sum(w) == total
        assert all(x > 0 for x in weight_of(w, *(n.replace(" ", "") for n in inside)))
        assert not any(weight_of(w, *outside))

    def test_weight_applies_to_the_item_before_it(self):
        w = parse_range("AK:0.5,QQ,JJ:0.25")
        assert weight_of(w, "AsKs", "QsQh", "JsJh") == [0.5, 1.0, 0.25]

    @pytest.mark.parametrize("text,shortest", [
        ("AA,KK,QQ,JJ,TT", "TT+"),
        ("AKs,AQs,AJs,ATs,AKo", "ATs+,AKo"),
        ("AK,AQ,AJ,AT", "AT+"),
        ("K9o,K8o,K7o,K6o", "K9o-K6o"),
        ("99:0.5,88:0.5,AsKs", "99-88:0.5,AsKs"),
        ("AK,AsKs:0.25", "AK,AsKs:0.25"),
        ("AsKs,AhKh,AdKd", "AKs,AcKc:0"),
    ])
    def test_shortest_text(self, text, shortest):
        assert range_text(parse_range(text)) == shortest


class TestRoundTrip:
    def random_weights(self, rng):
        pool = [1.0, 0.5, 0.25, 0.75, rng.random(), rng.random()]
        w = [0.0] * 1326
        for hands in rng.sample(list(SHAPE_HANDS.values()), rng.randint(0, 169)):
            x = rng.choice(pool)
            for h in hands:
                w[h] = x
        for h in rng.sample(range(1326), rng.randint(0, 30)):
            w[h] = rng.choice(pool + [0.0])
        return w

    def test_random_ranges_come_back_exactly(self):
        rng = random.Random(16)
        for _ in range(300):
            w = self.random_weights(rng)
            text = range_text(w)
            assert parse_range(text) == w, text
            assert range_text(parse_range(text)) == text

    def test_weights_outside_0_1_have_no_text(self):
        with pytest.raises(ValueError):
            range_text([1.5] + [0.0] * 1325)


class TestErrors:
    @pytest.mark.parametrize("text,message", [
        ("AA,AKx", "unknown token 'AKx' at position 4 (item 2)"),
        ("AA, K", "unknown token 'K' at position 5 (item 2)"),
        ("AK:1.5", "bad weight '1.5' in 'AK:1.5' at position 1 (item 1)"),
        ("QQ,AK:-0.5", "bad weight '-0.5' in 'AK:-0.5' at position 4 (item 2)"),
        ("QQ:nan", "bad weight 'nan'"),
        ("QQ:", "bad weight ''"),
        ("KK,AsAs", "card twice in combo 'AsAs' at position 4 (item 2)"),
        ("KQ-J9", "run with different high cards or suits 'KQ-J9'"),
        ("K9s-K6o", "run with different high cards or suits"),
        ("10s9s", "unknown token '10s9s'"),
    ])
    def test_message_names_token_and_position(self, text, message):
        with pytest.raises(RangeError, match=None) as e:
            parse_range(text)
        assert message in str(e.value)
