"""The page for administrators in a browser, while hosts register."""

# mypy: allow-untyped-calls

from __future__ import annotations

import re
from collections.abc import Callable, Iterator

import pytest
from selenium.webdriver import Chrome, Keys
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait

from harness.authority import Authority
from harness.browser import chromium, open_page, set_width

DEADLINE_S = 60
SECTIONS = ["requests", "agents", "dataselections", "accounts", "pools"]
MARKUP = "<img src=x onerror=\"document.title='caught'\">"


@pytest.fixture
def browser(authority: Authority) -> Iterator[Chrome]:
    """A browser that shows the page; what it was opened with must not have made it complain."""
    with chromium() as driver:
        open_page(driver, authority)
        yield driver
        assert driver.get_log("browser") == []


def text(browser: Chrome, part: str) -> str:
    """The text of a part of the page."""
    return str(browser.find_element(By.ID, part).text)


def wait_until(browser: Chrome, holds: Callable[[], bool]) -> None:
    """Returns once this holds; it must come to hold."""
    WebDriverWait(browser, DEADLINE_S, 0.1).until(lambda _: holds())


def test_counts_rise_and_names_are_texts_while_hosts_register(authority: Authority, browser: Chrome) -> None:
    assert text(browser, "agents-count") == "0"
    browser.execute_script("window.loadedOnce = true")
    passwords = [authority.password]
    for number in (1, 2):
        passwords.append(authority.register(f"web{number}.example", version=MARKUP)["password"])
        wait_until(browser, lambda: text(browser, "agents-count") == str(number))
    name = {"action": "createDS", "agentid": "1", "dstypeid": "2", "name": MARKUP, "dataselection": "rules-canary"}
    authority.ask("dataselection", **name)
    wait_until(browser, lambda: MARKUP in text(browser, "dataselections-rows"))
    assert text(browser, "agents-rows").count(MARKUP) == 2
    assert text(browser, "status") == "Requests: 3, Agents: 2, Data selections: 1, Accounts: 3, Pools: 2"
    assert browser.find_elements(By.TAG_NAME, "img") == [] and browser.title == "Storage pool authority"
    assert browser.execute_script("return window.loadedOnce") is True
    document = browser.execute_script("return document.documentElement.outerHTML + document.URL")
    for secret in (*passwords, "$2y$", "rules-canary"):
        assert secret not in document


def test_it_fits_a_telephone_and_serves_a_keyboard(authority: Authority, browser: Chrome) -> None:
    authority.register("a" * 250, version="v" * 255)
    wait_until(browser, lambda: text(browser, "agents-count") == "1")
    headings = "return [...document.querySelectorAll('td')].map(cell => getComputedStyle(cell, '::before').content)"
    set_width(browser, 1200)
    assert '"Registered"' not in browser.execute_script(headings)
    set_width(browser, 360)
    assert '"Registered"' in browser.execute_script(headings)
    widths = "return [document.documentElement.scrollWidth, innerWidth]"
    assert browser.execute_script(widths) == [360, 360]
    cut = "return [...document.querySelectorAll('td')].filter(cell => cell.scrollWidth > cell.clientWidth).length"
    assert browser.execute_script(cut) == 0
    reached = []
    for _ in range(len(SECTIONS) + 1):
        browser.switch_to.active_element.send_keys(Keys.TAB)
        focused = browser.switch_to.active_element
        assert focused.value_of_css_property("outline-style") == "solid"
        reached.append(focused.get_attribute("id") or re.sub(".*#", "", str(focused.get_attribute("href"))))
    assert reached == ["pause", *SECTIONS]
    # What has the focus keeps it when new numbers arrive.
    authority.register("second.example")
    wait_until(browser, lambda: text(browser, "agents-count") == "2")
    browser.switch_to.active_element.send_keys(Keys.ENTER)
    assert browser.current_url.endswith("#pools")


def test_it_pauses_and_says_when_the_authority_is_gone(authority: Authority, browser: Chrome) -> None:
    pause = browser.find_element(By.ID, "pause")
    pause.send_keys(Keys.SPACE)
    assert pause.get_attribute("aria-pressed") == "true"
    authority.change("ALTER TABLE agents RENAME TO away")
    pause.send_keys(Keys.SPACE)
    wait_until(browser, lambda: "it answers with status 500" in text(browser, "status"))
    assert text(browser, "agents-count") == "0"
    authority.change("ALTER TABLE away RENAME TO agents")
    wait_until(browser, lambda: text(browser, "status").startswith("Requests: 0"))
    assert [entry["message"].split(" - ")[-1] for entry in browser.get_log("browser")] != []
