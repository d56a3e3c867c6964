"""A headless Chromium that shows the page, and what there is to be read in it."""
import json
import os
import pathlib
import shutil
import subprocess
import time

LIMIT = 60  # seconds for anything that is waited for; a busy machine is slow


def missing():
    """What this machine lacks for a browser, or None."""
    for program in ("chromium", "chromedriver"):
        if shutil.which(program) is None:
            return f"{program} is missing"
    return missing_tools()


def missing_tools():
    """What it lacks for any browser, or None."""
    for program in ("ffmpeg", "ffprobe"):
        if shutil.which(program) is None:
            return f"{program} is missing"
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "python3-selenium is missing"
    return None


class Page:
    """One browser. Everything here raises when the page is not as it is waited for."""

    def __init__(self, folder, size=(1280, 800), dark=False):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        # As root there is no sandbox, and /dev/shm may be small.
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                     "--no-first-run", "--disable-extensions", "--disable-background-networking",
                     f"--user-data-dir={folder}/profile"):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.folder = pathlib.Path(folder)
        self.saved = self.folder / "saved"
        service = Service(shutil.which("chromedriver"), log_output=subprocess.DEVNULL,
                          env={**os.environ, "HOME": str(self.folder)})
        self.driver = webdriver.Chrome(options=options, service=service)
        self.driver.set_script_timeout(LIMIT)
        self.driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(self.saved)})
        self.problems = []
        self.down, self.fingers = [], 0
        self.look(size, dark)

    def close(self):
        self.driver.quit()

    def look(self, size, dark):
        features = [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": features})
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": size[0] < 600})

    def touches(self, on):
        self.driver.execute_cdp_cmd("Emulation.setTouchEmulationEnabled", {"enabled": on, "maxTouchPoints": 5})

    def open(self, address, at_ms=None):
        # Another fragment alone would not load the page anew.
        self.leave()
        self.driver.get(address + "/" + ("" if at_ms is None else f"#at={at_ms:.0f}"))
        self.wait("document.body.dataset.ready === 'yes'")

    def ask(self, script, *words):
        return self.driver.execute_script(f"return {script}", *words)

    def wait(self, script, *words, seconds=LIMIT):
        """Until the script tells something true, which is given back."""
        end = time.monotonic() + seconds
        while True:
            told = self.ask(script, *words)
            if told:
                return told
            if time.monotonic() > end:
                raise AssertionError(f"did not come: {script} {words}\n{self.state()}")
            time.sleep(0.02)

    def state(self):
        return json.dumps(self.ask("""({clock: document.getElementById('clock').textContent,
          notice: document.getElementById('notice').textContent,
          notes: [...document.querySelectorAll('#stage .note')].map((note) => note.hidden ? '' : note.textContent),
          videos: [...document.querySelectorAll('video')].map((video) =>
            [video.currentTime, video.paused, video.readyState, video.error && video.error.message])})"""), indent=1) + \
            "\n".join(str(entry) for entry in self.console()[-5:])

    def console(self):
        return self.driver.get_log("browser")

    def press(self, *keys):
        from selenium.webdriver.common.by import By
        body = self.driver.find_element(By.TAG_NAME, "body")
        for key in keys:
            body.send_keys(key)

    def click(self, selector):
        from selenium.webdriver.common.by import By
        self.driver.find_element(By.CSS_SELECTOR, selector).click()

    def touch(self, *fingers):
        """Puts these fingers (x, y) where they are; those that were down go there, and the last of them are lifted."""
        points = [{"x": x, "y": y, "id": number} for number, (x, y) in enumerate(fingers)]
        lifted, self.down = self.down[len(points):], points
        if lifted:
            # Of several those that go are named.
            self.driver.execute_cdp_cmd("Input.dispatchTouchEvent", {"type": "touchEnd", "touchPoints": lifted if points else []})
        elif points:
            kind = "touchMove" if len(points) == self.fingers else "touchStart"
            self.driver.execute_cdp_cmd("Input.dispatchTouchEvent", {"type": kind, "touchPoints": points})
        self.fingers = len(points)

    def shown_ms(self):
        return float(self.ask("document.getElementById('clock').dataset.ms"))

    def wait_shown(self, ms):
        """Until the clock shows that moment, to the millisecond, and the videos stand still there."""
        self.wait("Math.abs(Number(document.getElementById('clock').dataset.ms) - arguments[0]) < 1 && "
                  "[...document.querySelectorAll('video')].every((video) => !video.seeking)", ms)

    def note_problems(self):
        """Takes down what the browser has complained of since the last time."""
        for entry in self.console():
            if entry["level"] in ("SEVERE", "WARNING"):
                self.problems.append(entry["message"])

    def leave(self):
        """Before the server goes: that it went is nothing to complain of."""
        self.note_problems()
        self.driver.get("about:blank")

    # Of every picture that reaches the screen: the time that the page shows, and its grey.
    def watch(self, channel_index=0):
        """From now on seen() has, of each picture that reached the screen, the time that the page tells, its grey,
        and how many milliseconds later that was taken: the video may have gone on meanwhile."""
        self.driver.execute_script("""
          const video = document.querySelectorAll('video')[arguments[0]], clock = document.getElementById('clock');
          const canvas = Object.assign(document.createElement('canvas'), {width: 4, height: 4});
          const pen = canvas.getContext('2d', {willReadFrequently: true});
          window.seen = [];
          const take = (now, picture) => {
            pen.drawImage(video, 0, 0, 4, 4);
            const late = performance.now() - picture.presentationTime;
            window.seen.push([Number(clock.dataset.ms), pen.getImageData(1, 1, 1, 1).data[1], late]);
            video.requestVideoFrameCallback(take);
          };
          video.requestVideoFrameCallback(take);""", channel_index)

    def seen(self):
        return self.ask("window.seen")

    def picture(self, path):
        self.driver.save_screenshot(str(path))

    def accessibility(self, axe):
        """What axe-core finds: (rule, impact, element)."""
        self.driver.execute_script(axe)
        return self.driver.execute_async_script("""
          const told = arguments[arguments.length - 1];
          axe.run(document, {resultTypes: ['violations']}).then((result) => told(result.violations.map(
            (found) => `${found.impact}: ${found.help} (${found.id}): ${found.nodes[0].html.slice(0, 200)}`)));""")
