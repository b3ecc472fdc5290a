"""usage: page_test.py URL PROCESS REPORT: uses the live page of a monitor and a report in a real browser.

The monitor watches client 77, which runs, and client 78, which does not exist. The monitor's process is
ended on the way.
"""

import os
import re
import shutil
import signal
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys


def until(condition, what):
    for _ in range(300):
        if result := condition():
            return result
        time.sleep(0.1)
    raise AssertionError(what)


class Page:
    def __init__(self, driver, url):
        self.driver = driver
        driver.get(url)
        until(lambda: self.heading() == "client 77", "the running engine is not shown first")
        until(lambda: len(self.values()) >= 17, f"of 18 lines few have a value: {self.values()}")
        assert not re.search(r'<[a-z]+ [^>]*(src|href)="(?!data:)', driver.page_source), "needs another file"

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def heading(self):
        return "".join(one.text for one in self.all("h2"))

    def values(self):
        """Of all lines at the cursor; the times of the cursor are not among them."""
        return [cell.text for cell in self.all("tr:not(:first-child) > .u-value") if re.match(r"-?\d", cell.text)]

    def times(self):
        return {cell.text for cell in self.all("tr:first-child > .u-value")}

    def row(self, client_id):
        return next(row for row in self.all("#engines tbody tr") if row.text.startswith(f"client {client_id}"))

    def range(self):
        return self.driver.execute_script("const { min, max } = plots[0].scales.x; return [min, max]")

    def click(self, button):
        next(one for one in self.all(".tools button") if one.text == button).click()

    def pressed(self):
        return [one.text for one in self.all("[aria-pressed=true][data-last]")]

    def check_choice(self):
        """The list of engines, by pointer and by key."""
        assert "Running" in self.row(77).text, self.row(77).text
        assert re.search("no engine with this client_id; waiting no engine$", self.row(78).text), self.row(78).text
        assert len(self.all(".uplot canvas")) == 6 and self.all("#drawing")[0].is_displayed()
        self.row(78).click()
        until(lambda: self.heading() == "client 78", "a click does not choose an engine")
        assert not self.all("#drawing")[0].is_displayed() and "no engine" in self.all("#account")[0].text
        assert self.driver.current_url.endswith("#78")
        self.row(78).find_element(By.TAG_NAME, "button").send_keys(Keys.ARROW_UP)
        self.driver.switch_to.active_element.send_keys(Keys.ENTER)
        until(lambda: self.heading() == "client 77", "keys do not choose an engine")
        until(lambda: len(self.values()) >= 17, "the plots do not come back")

    def check_cursors(self, first):
        """Keys in a plot move the cursors of all."""
        plot = self.all(".u-over")[1]
        plot.send_keys(Keys.HOME)
        until(lambda: len(self.times()) == 1, "the cursors are not at one time")
        (time_text,) = self.times()
        assert re.fullmatch(first, time_text), time_text
        plot.send_keys(Keys.ARROW_RIGHT)
        until(lambda: self.times() != {time_text}, "an arrow key does not move the cursors")
        before = self.range()
        plot.send_keys("+")
        assert self.range()[1] - self.range()[0] < before[1] - before[0], "+ does not zoom in"
        plot.send_keys("0")


def check_live(page, monitor):
    assert re.search(r"Running · 48000 Hz, 128 frames", page.all(".state")[0].text)
    assert page.pressed() == ["Last 10 minutes"]
    end = page.range()[1]
    until(lambda: page.range()[1] > end, "the plots do not follow")
    page.click("Zoom in")
    assert page.pressed() == []
    fixed = page.range()
    newest = page.driver.execute_script("return samples.length")
    until(lambda: page.driver.execute_script("return samples.length") > newest + 1, "no reading comes")
    assert page.range() == fixed, "a part that was chosen moves"
    page.click("Last hour")
    assert page.pressed() == ["Last hour"]
    until(lambda: page.range()[1] > fixed[1], "the plots do not follow again")
    page.check_cursors(r"\d\d:\d\d:\d\d")
    os.kill(monitor, signal.SIGINT)
    until(lambda: re.search(r"monitor not reachable since \d\d:\d\d:\d\d, showing the last", page.all("#gone")[0].text),
          "a page without its monitor does not say so")


def main():
    url, monitor, report = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    options = webdriver.ChromeOptions()
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    with tempfile.TemporaryDirectory() as profile:
        for argument in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                         "--window-size=1200,1500", f"--user-data-dir={profile}"]:
            options.add_argument(argument)
        driver = webdriver.Chrome(options=options, service=Service(shutil.which("chromedriver")))
        try:
            page = Page(driver, f"file://{report}")
            page.check_choice()
            page.check_cursors("0:00")
            page = Page(driver, url)
            page.check_choice()
            errors = [entry for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
            assert not errors, errors
            check_live(page, monitor)
        finally:
            driver.quit()


main()
