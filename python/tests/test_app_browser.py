"""The app in headless chromium: a game set up by clicking alone, solved, locked, saved and
opened again; the report over the cards of a chance node; a study. One browser and one app
for the module. The polarised river game has a closed form: OOP holds 6 sets and 4 missed
draws against IP's 12 combos of top pair, pot 100, one pot-sized bet. OOP bets its sets and
bluffs 100/200 of them, 9 of 10 hands; when IP always calls, OOP bets the sets alone and
wins pot and bet with them: EV 6/10 x 200 = 120, against 90 in equilibrium."""
import json
import os
import re
import shutil
import time
from pathlib import Path

import pytest

from corvanta.app import Server
from corvanta.client import Solver
from corvanta.nodeview import range_average
from corvanta.session import Session

ROOT = Path(__file__).resolve().parents[2]
FLOP = {"board": "Qs Jh 2h", "pot": 100, "stack": 100, "ranges": {"oop": "AA,QJs,T9s", "ip": "KK,AQs"},
        "tree": {"flop": {"bet": "a", "max_raises": 0}, "turn": {"bet": "a", "max_raises": 0},
                 "river": {"bet": "a", "max_raises": 0}}}


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        if os.environ.get("CI"):
            raise
        pytest.skip("no python3-selenium")
    driver_path, chromium = shutil.which("chromedriver"), shutil.which("chromium")
    if not (driver_path and chromium):
        if os.environ.get("CI"):
            pytest.fail("chromium and chromium-driver are missing")
        pytest.skip("no chromium")
    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    downloads = tmp_path_factory.mktemp("downloads")
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--window-size=1400,1000", "--no-first-run", "--disable-extensions",
                f"--user-data-dir={tmp_path_factory.mktemp('chromium')}"):
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(driver_path), options=options)
    driver.set_page_load_timeout(30)
    driver.set_script_timeout(30)
    driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(downloads)})
    driver.downloads = downloads
    yield driver
    driver.quit()


@pytest.fixture(scope="module")
def app(engine, tmp_path_factory):
    folder = tmp_path_factory.mktemp("trees")
    ranges = tmp_path_factory.mktemp("ranges")
    (ranges / "catchers.txt").write_text("# top pair\nKQ\n")
    server = Server(Session(engine, [folder], ranges)).start()
    server.folder = folder
    yield server
    server.close()


def wait(driver, condition, timeout=30):
    from selenium.webdriver.support.ui import WebDriverWait
    return WebDriverWait(driver, timeout, poll_frequency=0.05).until(lambda d: condition(d))


def find(driver, css):
    return driver.find_element("css selector", css)


def click(driver, css):
    """Clicks the element, found again if the page redrew it between finding and clicking."""
    from selenium.common.exceptions import StaleElementReferenceException

    def clicked(d):
        try:
            find(d, css).click()
            return True
        except StaleElementReferenceException:
            return False
    wait(driver, clicked)


def shot(driver, name):
    """The README's pictures: $CORVANTA_SCREENSHOTS (docs/ for the README), else build/."""
    folder = Path(os.environ.get("CORVANTA_SCREENSHOTS") or ROOT / "build")
    if folder.is_dir():
        driver.execute_script("window.scrollTo(0, 0)")
        driver.save_screenshot(str(folder / name))


def severe(driver):
    return [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]


def state(driver):
    return driver.execute_script("return document.body.dataset.state")


def solved(driver, solves, timeout=60):
    """Waits for the end of the page's `solves`-th solve."""
    wait(driver, lambda d: state(d) == "solved" and d.execute_script("return +document.body.dataset.solves") >= solves,
         timeout)


def tab(driver, name):
    click(driver, f'#tabs button[data-tab="{name}"]')
    wait(driver, lambda d: d.execute_script("return document.body.dataset.tab") == name)


def show_node(driver, path):
    driver.execute_script("location.hash = arguments[0]", "#" + path)
    wait(driver, lambda d: d.execute_script("return document.body.dataset.path") == path)


def type_in(element, text):
    element.clear()
    element.send_keys(text)


def paint(driver, player, cells):
    """Drags across the cells of the player's grid with the brush at 100%."""
    from selenium.webdriver import ActionChains
    grid = f'.range-editor[data-player="{player}"] .grid'
    chain = ActionChains(driver).click_and_hold(find(driver, f'{grid} .cell[data-hand="{cells[0]}"]'))
    for cell in cells[1:]:
        chain = chain.move_to_element(find(driver, f'{grid} .cell[data-hand="{cell}"]'))
    chain.release().perform()


def frequencies(driver):
    """The actions' frequencies as the buttons show them."""
    out = {}
    for b in driver.find_elements("css selector", "button.action"):
        out[b.get_attribute("data-action")] = float(re.search(r"([\d.]+)%$", b.text)[1]) / 100
    return out


SPLITS = """return Object.fromEntries([...document.querySelectorAll('#grid .cell')].filter(c => c.querySelector('.seg'))
  .map(c => [c.dataset.hand, Object.fromEntries([...c.querySelectorAll('.seg')].map(s => [s.dataset.action, +s.dataset.freq]))]));"""


def cell_weights(driver, player):
    return driver.execute_script(f"""return Object.fromEntries([...document.querySelectorAll(
        '.range-editor[data-player="{player}"] .grid .cell')].map(c => [c.dataset.hand, +c.dataset.weight]));""")


def test_the_range_grid_and_its_notation_follow_each_other(browser, app):
    d = browser
    d.get(app.url)
    wait(d, lambda d: d.find_elements("css selector", ".range-editor .cell"))
    text = find(d, 'textarea[data-player="IP"]')
    type_in(text, "AKs:0.5,QQ")
    wait(d, lambda d: cell_weights(d, "IP")["AKs"] == 0.5)
    assert {c: w for c, w in cell_weights(d, "IP").items() if w} == {"AKs": 0.5, "QQ": 1}
    type_in(text, "AKs,QX")  # a mistake leaves the grid and is named under the box
    wait(d, lambda d: "QX" in find(d, '.msg[data-for="ranges.ip"]').text)
    assert cell_weights(d, "IP")["AKs"] == 0.5
    # One hand of a cell, weighted by itself.
    click(d, '.range-editor[data-player="IP"] .modes button[data-mode="hands"]')
    click(d, '.range-editor[data-player="IP"] .cell[data-hand="AKs"]')
    box = find(d, '.range-editor[data-player="IP"] input[data-hand="AsKs"]')
    type_in(box, "100")
    box.send_keys("\t")
    wait(d, lambda d: text.get_attribute("value") == "QQ,AKs:0.5,AsKs")
    assert cell_weights(d, "IP")["AKs"] == 0.625
    from selenium.webdriver.support.ui import Select
    Select(find(d, '.range-editor[data-player="OOP"] select.range-files')).select_by_visible_text("catchers.txt")
    click(d, '.range-editor[data-player="OOP"] select.range-files + button')
    wait(d, lambda d: find(d, 'textarea[data-player="OOP"]').get_attribute("value") == "KQ")
    assert {c for c, w in cell_weights(d, "OOP").items() if w} == {"KQs", "KQo"}
    assert severe(d) == []


def test_a_game_set_up_by_clicking_solves_to_the_closed_form_locks_saves_and_opens(browser, app):
    d = browser
    d.get(app.url)
    wait(d, lambda d: d.find_elements("css selector", ".range-editor .cell"))
    for card in ("2c", "7d", "9h", "Ts", "Ks"):
        click(d, f'#board-picker button[data-card="{card}"]')
    click(d, '#board-picker button[data-card="Ah"]')  # a sixth card is not taken
    assert [b.get_attribute("data-card") for b in d.find_elements("css selector", "#board-picker button.on")] \
        == ["Ks", "Ts", "9h", "7d", "2c"]
    type_in(find(d, "#stack"), "100")
    paint(d, "OOP", ["99", "77"])
    paint(d, "OOP", ["43s"])
    paint(d, "IP", ["KQs", "KQo"])
    wait(d, lambda d: find(d, 'textarea[data-player="OOP"]').get_attribute("value") == "99,77,43s")
    wait(d, lambda d: find(d, 'textarea[data-player="IP"]').get_attribute("value") == "KQ")
    assert [i.get_attribute("data-street") for i in d.find_elements("css selector", '#sizes input[data-key="bet"]')] \
        == ["river"]
    type_in(find(d, '#sizes input[data-key="bet"]'), "100%, 2x")  # a mistake is named where it is typed
    wait(d, lambda d: "multiplies a bet faced" in find(d, '.msg[data-for="tree.river"]').text
         or "multiplies" in find(d, '.msg[data-for="tree.river.bet"]').text)
    assert find(d, "#build").get_attribute("disabled")
    type_in(find(d, '#sizes input[data-key="bet"]'), "100%")
    type_in(find(d, '#sizes input[data-key="ip_bet"]'), "none")
    type_in(find(d, '#sizes input[data-key="max_raises"]'), "0")
    wait(d, lambda d: not find(d, "#build").get_attribute("disabled"))
    click(d, "#build")
    wait(d, lambda d: d.find_elements("css selector", "#memory tr.auto"))
    assert "7,056" in find(d, "#preview").text and re.search(r"lines\s+2", find(d, "#preview").text)
    shot(d, "app-setup.png")

    tab(d, "solve")
    type_in(find(d, "#accuracy"), "0.1")
    click(d, "#solve")
    solved(d, 1)
    shot(d, "app-solve.png")
    tab(d, "explore")
    show_node(d, "r:0")
    assert frequencies(d)["b100"] == pytest.approx(0.9, abs=0.01)
    wait(d, lambda d: d.execute_script("return document.body.dataset.values") == "r:0")
    assert d.execute_script("return document.querySelector('#node-values').innerText").splitlines()[1].split() \
        == ["EV", "(chips)", "90.00", "10.00"]
    before = d.execute_script(SPLITS)
    # A lock of picked cells: the sets' cell 99 bets always.
    click(d, 'input[name="lock-mode"][value="cells"]')
    click(d, '#grid .cell[data-hand="99"]')
    assert "picked: 99" in find(d, "#lock-picked").text
    click(d, "#lock")
    wait(d, lambda d: "locked 3 hands at r:0" in find(d, "#lock-msg").text)
    click(d, "#unlock")
    wait(d, lambda d: find(d, "#lock-msg").text == "unlocked")
    click(d, 'input[name="lock-mode"][value="all"]')

    # IP always calls: OOP stops bluffing, and its EV is the closed form's.
    click(d, 'button.action[data-action="b100"]')
    wait(d, lambda d: d.execute_script("return document.body.dataset.path") == "r:0:b100")
    d.execute_script("""const s = document.querySelector('#lock-sliders input[data-action="c"]');
                        s.value = 100; s.dispatchEvent(new Event('input'));""")
    assert d.execute_script("return [...document.querySelectorAll('#lock-sliders input')].map(x => +x.value)") \
        == [0, 100]  # fold, call
    click(d, "#lock")
    wait(d, lambda d: "locked the whole range" in find(d, "#lock-msg").text)
    click(d, "#resolve")
    solved(d, 2)
    rows = "return [...document.querySelectorAll('#lock-table tr')].map(r => r.innerText.split(/\\s+/))"
    wait(d, lambda d: len(d.execute_script(rows)) == 3)
    assert d.execute_script(rows)[1] == ["OOP", "90.000", "120.000"]
    shot(d, "app-lock.png")
    tab(d, "solve")
    assert [tr.text.split()[-1] for tr in d.find_elements("css selector", "#history tr")[1:]] == ["\u2013", "r:0:b100"]
    tab(d, "explore")
    show_node(d, "r:0")
    bets = d.execute_script(SPLITS)
    assert bets["43s"]["b100"] == pytest.approx(0, abs=0.01) and bets["99"]["b100"] == pytest.approx(1, abs=0.01)
    assert frequencies(d)["b100"] == pytest.approx(0.6, abs=0.01) and bets != before

    tab(d, "files")
    type_in(find(d, "#save-name"), "polar")
    click(d, "#save")
    wait(d, lambda d: "saved polar.tree" in find(d, "#save-msg").text)
    # The solve outlives a reload of the page; a tree opened from the file shows the same.
    d.refresh()
    wait(d, lambda d: state(d) == "solved")
    wait(d, lambda d: find(d, 'textarea[data-player="OOP"]').get_attribute("value") == "99,77,43s")
    assert len(d.find_elements("css selector", "#board-picker button.on")) == 5
    tab(d, "solve")
    assert "120.000" in find(d, "#results").text
    tab(d, "files")
    wait(d, lambda d: d.find_elements("css selector", 'button.file[data-name="polar.tree"]'))
    click(d, 'button.file[data-name="polar.tree"]')
    wait(d, lambda d: "polar.tree" in find(d, "#game").text
         and d.execute_script("return document.body.dataset.path") == "r:0")
    assert d.execute_script(SPLITS) == bets
    assert severe(d) == []


def test_the_card_report_agrees_with_the_engine(browser, app, engine, tmp_path):
    d = browser
    session = app.session
    session.set_up(FLOP)
    solves = len(session.history) + 1
    session.solve({"steps": 20, "threads": 1})
    d.get(app.url)
    solved(d, solves)
    path = "r:0:c:c"
    show_node(d, path)
    offered = {b.get_attribute("data-card") for b in d.find_elements("css selector", "#next button.card")}
    assert len(offered) == 49 and not offered & {"Qs", "Jh", "2h"}
    # The line and the check of a typed path follow the server's grammar.
    show_node(d, path + ":Ks")
    links = [(a.get_attribute("href").split("#")[1], a.text) for a in d.find_elements("css selector", "#line a")]
    assert links == [("r:0", "start"), ("r:0:c", "c"), ("r:0:c:c", "c"), ("r:0:c:c:Ks", "K\u2660")]
    d.execute_script("location.hash = '#r:0:c:k'")
    wait(d, lambda d: find(d, "#error").text == "not a node path: r:0:c:k")
    show_node(d, path)
    click(d, '#players button[data-player="IP"]')
    wait(d, lambda d: find(d, "#grid-title").text == "IP's range")
    click(d, "#cards-ev")
    wait(d, lambda d: d.execute_script("return document.body.dataset.cards") == path + " with EVs"
         and len(d.find_elements("css selector", "#cards-table tr")) == 50)
    shot(d, "app-cards.png")
    header = [th.get_attribute("data-key") for th in d.find_elements("css selector", "#cards-table th")]
    assert header == ["card", "freq", "ev.OOP", "ev.IP", "eq.OOP", "eq.IP", "act.c", "act.b100"]
    table = {tr.get_attribute("data-key"): tr.text.split() for tr in d.find_elements("css selector", "#cards-table tr")[1:]}
    assert len(table) == 49
    tree = tmp_path / "flop.tree"
    session.save({"folder": 0, "name": "flop"})
    shutil.copy(app.folder / "flop.tree", tree)
    with Solver(engine) as s:
        s.command(f"load_tree {tree}")
        for card in ("Ks", "2c"):
            p = f"{path}:{card}"
            assert float(table[card][1].rstrip("%")) == pytest.approx(
                100 * float(s.command(f"calc_global_freq {p}")[0]), abs=0.006)
            for i, who in ((2, "OOP"), (3, "IP")):
                ev, weights = s.ev(who, p), s.range(who, p).values
                live = [h for h in range(1326) if ev.matchups[h] > 0]
                assert float(table[card][i]) == pytest.approx(range_average(ev.values, ev.matchups, weights, live),
                                                              abs=0.006)
    # Sorted by OOP's EV, largest first, at a click of its header.
    click(d, '#cards-table th[data-key="ev.OOP"]')
    evs = [float(tr.text.split()[2]) for tr in d.find_elements("css selector", "#cards-table tr")[1:]]
    assert evs == sorted(evs, reverse=True) and len(set(evs)) > 1
    click(d, "#export-csv")
    csv = d.downloads / "node-r_0_c_c.csv"
    wait(d, lambda d: csv.exists())
    assert csv.read_text().splitlines()[0] == "hand,weight,ev,equity"
    click(d, "#export-json")
    exported = d.downloads / "node-r_0_c_c.json"
    wait(d, lambda d: exported.exists() and exported.stat().st_size)
    hands = json.loads(exported.read_text())["hands"]
    rows = [line.split(",") for line in csv.read_text().splitlines()[1:]]
    assert [(h["hand"], h["equity"]) for h in hands] == [(r[0], pytest.approx(float(r[3]), abs=1e-6)) for r in rows]
    assert {h["hand"][:2] for h in hands} == {"Kd", "Kh", "Ks", "Ac", "Ad", "Ah"}  # IP's KK and AQs: its grid shown
    assert severe(d) == []


def test_sizes_show_in_chips_and_as_shares_of_the_pot(browser, app):
    # River, pot 100: OOP bets 50 (half the pot); IP raises to 125, 75 more than the call
    # into a pot of 200 once it is called (37.5%); OOP raises again to 2.5 x 125 = 313 (halves
    # up), 263 more than its 50 and 188 more than the call into a pot of 350.
    app.session.set_up({"board": "2c 7d 9h Ts Ks", "pot": 100, "stack": 400, "ranges": {"oop": "99,77,43s", "ip": "KQ"},
                        "tree": {"river": {"bet": "50%", "raise": "2.5x, a", "max_raises": 2}}})
    app.session.solve({"steps": 5})
    d = browser
    d.get(app.url)
    wait(d, lambda d: state(d) == "solved")
    sizes = lambda: {b.get_attribute("data-action"): b.text.split("(")[1].split(")")[0]
                     for b in d.find_elements("css selector", "button.action") if "(" in b.text}
    show_node(d, "r:0")
    assert sizes() == {"b50": "50 chips, 50% pot"}
    show_node(d, "r:0:b50")
    assert sizes() == {"b125": "125 chips, 38% pot", "b400": "400 chips, 175% pot"}
    show_node(d, "r:0:b50:b125")
    assert sizes() == {"b313": "263 chips, 54% pot", "b400": "350 chips, 79% pot"}
    assert severe(d) == []


def test_a_long_solve_draws_its_progress_and_stops_at_the_button(browser, app):
    d = browser
    app.session.set_up(FLOP)
    d.get(app.url)
    tab(d, "solve")
    wait(d, lambda d: state(d) == "built")
    type_in(find(d, "#accuracy"), "0")
    type_in(find(d, "#seconds"), "120")
    type_in(find(d, "#threads"), "1")
    click(d, "#solve")
    wait(d, lambda d: len(d.find_elements("css selector", "#chart circle")) >= 3)
    assert "iteration" in find(d, "#progress-text").text and find(d, "#solve").get_attribute("disabled")
    started = time.monotonic()
    click(d, "#stop")
    wait(d, lambda d: state(d) == "solved" and "requested" in find(d, "#results").text, 10)
    assert time.monotonic() - started < 5 and app.session.settings["threads"] == 1
    stopped = app.session.results["iterations"]
    click(d, "#go-on")  # from the iteration reached, not from the start
    wait(d, lambda d: state(d) == "solving")
    click(d, "#stop")
    wait(d, lambda d: state(d) == "solved")
    assert app.session.results["iterations"] > stopped and app.session.reports[0]["iteration"] > stopped
    assert severe(d) == []


def test_a_study_folder_reads_as_a_table_and_opens_its_trees(browser, app):
    d = browser
    study = app.folder / "study"
    study.mkdir()
    shutil.copy(app.folder / "flop.tree", study / "QsJh2h.tree")
    for flop, weight, ev, bet in (("QsJh2h", 24, 60.0, 0.25), ("AhKh5h", 4, 40.0, 0.5), ("7c7d2s", 12, 55.0, 0.1)):
        (study / f"{flop}.json").write_text(json.dumps({
            "flop": flop, "weight": weight, "results": {"ev_oop": ev, "ev_ip": 100 - ev, "exploitability": 0.1},
            "equity": {"oop": ev / 100, "ip": 1 - ev / 100},
            "root": {"frequencies": {"c": 1 - bet, "b100": bet}}}))
    d.get(app.url)
    tab(d, "files")
    wait(d, lambda d: d.find_elements("css selector", "button.file.study"))
    click(d, "button.file.study")
    wait(d, lambda d: len(d.find_elements("css selector", "#study-table tr")) == 4)
    keys = lambda: [tr.get_attribute("data-key") for tr in d.find_elements("css selector", "#study-table tr")[1:]]
    assert keys() == ["QsJh2h", "7c7d2s", "AhKh5h"]  # by weight
    click(d, '#study-table th[data-key="ev_oop"]')
    assert keys() == ["QsJh2h", "7c7d2s", "AhKh5h"]
    click(d, '#study-table th[data-key="freq_b100"]')
    assert keys() == ["AhKh5h", "QsJh2h", "7c7d2s"]
    from selenium.webdriver.support.ui import Select
    Select(find(d, '#study-filters select[data-texture="suits"]')).select_by_visible_text("monotone")
    assert keys() == ["AhKh5h"]
    Select(find(d, '#study-filters select[data-texture="suits"]')).select_by_visible_text("all")
    # The chart: each class's mean, weighted by the flops' weights (24 x 60 + 4 x 40) / 28.
    Select(find(d, "#study-group")).select_by_visible_text("pairing")
    bars = d.execute_script("return [...document.querySelectorAll('#study-chart rect title')].map(t => t.textContent)")
    assert bars == ["unpaired: 57.143", "paired: 55.000"]
    type_in(find(d, "#study-path"), "r:0:c")
    click(d, "#study-line")
    wait(d, lambda d: d.execute_script("return document.body.dataset.studyLine") == "r:0:c")
    line = {tr.get_attribute("data-key"): tr.text for tr in d.find_elements("css selector", "#study-table tr")[1:]}
    assert "no tree" in line["AhKh5h"] and re.search(r"\d+\.\d\d%", line["QsJh2h"])
    shot(d, "app-study.png")
    click(d, '#study-table tr[data-key="QsJh2h"]')
    wait(d, lambda d: d.execute_script("return document.body.dataset.path") == "r:0" and "QsJh2h.tree" in find(d, "#game").text)
    assert severe(d) == []
