"""Browsers beside Chromium that can show the page: WebKit's, which Safari is of, and Firefox."""
import base64
import json
import os
import pathlib
import shutil
import socket
import subprocess
import time

from browser import LIMIT, Page

MINI_BROWSERS = ("/usr/lib/*/webkit2gtk-4.1/MiniBrowser", "/usr/libexec/webkit2gtk-4.1/MiniBrowser")


def mini_browser():
    return next((str(path) for pattern in MINI_BROWSERS for path in pathlib.Path("/").glob(pattern[1:])), None)


class OtherPage(Page):
    """A page in a browser that is driven by its driver alone."""

    def open(self, address, at_ms=None):
        self.driver.get("about:blank")
        self.driver.get(address + "/" + ("" if at_ms is None else f"#at={at_ms:.0f}"))
        self.wait("document.body.dataset.ready === 'yes'")

    def leave(self):
        self.driver.get("about:blank")

    def note_problems(self):
        pass

    def console(self):
        return []


class Screen:
    """A screen in memory, for a browser that wants one."""

    def __init__(self):
        read, write = os.pipe()
        self.process = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-screen", "0", "1400x1000x24", "-nolisten",
                                         "tcp"], pass_fds=[write], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write)
        with os.fdopen(read) as told:
            self.name = ":" + told.readline().strip()

    def close(self):
        self.process.terminate()
        self.process.wait(LIMIT)


class WebKitPage(OtherPage):
    """WebKitGTK's own small browser, on a screen in memory."""

    name = "WebKit"

    @staticmethod
    def missing():
        for program in ("WebKitWebDriver", "Xvfb"):
            if shutil.which(program) is None:
                return f"{program} is missing"
        if mini_browser() is None:
            return "WebKitGTK's MiniBrowser is missing"
        told = subprocess.run(["gst-inspect-1.0", "avdec_h264"], capture_output=True) if shutil.which(
            "gst-inspect-1.0") else None
        return "GStreamer decodes no H.264 here" if told is not None and told.returncode != 0 else None

    def __init__(self, folder):
        from selenium import webdriver
        from selenium.webdriver.webkitgtk.options import Options
        self.folder = pathlib.Path(folder)
        self.screen = Screen()
        options = Options()
        options.binary_location = mini_browser()
        options.add_argument("--automation")
        options.set_capability("browserName", "MiniBrowser")
        # The driver takes this process's environment.
        os.environ.update(DISPLAY=self.screen.name, HOME=str(self.folder), GTK_A11Y="none", LIBGL_ALWAYS_SOFTWARE="1")
        self.driver = webdriver.WebKitGTK(executable_path=shutil.which("WebKitWebDriver"), options=options)
        self.driver.set_script_timeout(LIMIT)
        self.driver.set_window_size(1280, 800)

    def close(self):
        self.driver.quit()
        self.screen.close()


class Element:
    def __init__(self, driver, reference):
        self.driver, self.id = driver, next(iter(reference.values()))

    def send_keys(self, text):
        self.driver.command("WebDriver:ElementSendKeys", id=self.id, text=text)

    def click(self):
        self.driver.command("WebDriver:ElementClick", id=self.id)


class FirefoxDriver:
    """The little of Firefox's own protocol that the page's cases need: each message is its length, a colon
    and JSON."""

    def __init__(self, folder):
        profile = pathlib.Path(folder) / "firefox"
        profile.mkdir()
        (profile / "user.js").write_text('user_pref("marionette.port", 0);\n'
                                         'user_pref("media.autoplay.default", 0);\n'
                                         'user_pref("browser.shell.checkDefaultBrowser", false);\n'
                                         'user_pref("datareporting.policy.dataSubmissionEnabled", false);\n'
                                         'user_pref("app.update.enabled", false);\n')
        self.process = subprocess.Popen(["firefox-esr", "--headless", "--marionette", "--remote-allow-system-access",
                                         "--no-remote", "--profile", str(profile)],
                                        env={**os.environ, "HOME": str(folder), "MOZ_DISABLE_CONTENT_SANDBOX": "1"},
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.number = 0
        self.socket = self.connect(profile / "MarionetteActivePort")
        self.take()  # who it is
        self.command("WebDriver:NewSession", capabilities={})

    def connect(self, told):
        end = time.monotonic() + LIMIT
        while time.monotonic() < end and self.process.poll() is None:
            try:
                return socket.create_connection(("127.0.0.1", int(told.read_text())), LIMIT)
            except (OSError, ValueError):
                time.sleep(0.1)
        raise AssertionError("Firefox does not begin")

    def take(self):
        size = b""
        while not size.endswith(b":"):
            size += self.socket.recv(1)
        text = b""
        while len(text) < int(size[:-1]):
            text += self.socket.recv(int(size[:-1]) - len(text))
        return json.loads(text)

    def command(self, name, **words):
        self.number += 1
        text = json.dumps([0, self.number, name, words]).encode()
        self.socket.sendall(f"{len(text)}:".encode() + text)
        _, _, error, told = self.take()
        if error is not None:
            raise AssertionError(f"{name}: {error.get('message')}")
        return told

    def get(self, address):
        self.command("WebDriver:Navigate", url=address)

    def execute_script(self, script, *words):
        return self.command("WebDriver:ExecuteScript", script=script, args=list(words))["value"]

    def find_element(self, by, value):
        using = "tag name" if by == "tag name" else "css selector"
        return Element(self, self.command("WebDriver:FindElement", using=using, value=value)["value"])

    def save_screenshot(self, path):
        pathlib.Path(path).write_bytes(base64.b64decode(self.command("WebDriver:TakeScreenshot", full=False)["value"]))

    def quit(self):
        self.socket.close()
        self.process.terminate()
        self.process.wait(LIMIT)


class FirefoxPage(OtherPage):
    """Firefox as Debian has it, without a screen."""

    name = "Firefox"

    @staticmethod
    def missing():
        return None if shutil.which("firefox-esr") is not None else "firefox-esr is missing"

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.driver = FirefoxDriver(folder)
        self.driver.command("WebDriver:SetWindowRect", width=1280, height=800)

    def close(self):
        self.driver.quit()
