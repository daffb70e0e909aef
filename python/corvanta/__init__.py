"""Corvanta from Python: range and bet-size notation, and a typed client of the engine."""
from .client import (EngineDied, EngineError, EngineNotImplemented, EngineTimeout, HandValues, Report,
                     Results, Solver, Strategy)
from .game import Game, GameError
from .lines import NodeCount, RulesError, StreetRules, TreeRules, lines
from .ranges import RangeError, parse_range, range_text

__all__ = ["EngineDied", "EngineError", "EngineNotImplemented", "EngineTimeout", "HandValues", "Report",
           "Results", "Solver", "Strategy", "Game", "GameError", "NodeCount", "RulesError", "StreetRules",
           "TreeRules", "lines", "RangeError", "parse_range", "range_text"]
