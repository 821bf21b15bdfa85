#!/usr/bin/python3
"""Drives the robot's set-up page in a real browser, as an owner does, while lab/demo/phone.sh plays.

usage: tests/browser/page.py URL FOLDER

Looks at the page narrow and wide, light and dark, in two languages, with and without script; mistypes the password,
reads the reason, and sets the robot up. Screenshots go to FOLDER. Exit code 0 when all was as it should be.
"""
import base64
import sys
import time

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

LAB_HOME = '4c616220486f6d65'
WRONG, RIGHT = 'mistyped horse', 'correct horse 42'


class Page(webdriver.Chrome):
    def __init__(self, width, language='en', scheme='light', script=True):
        options = Options()
        for argument in ('--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run',
                         '--disable-background-networking', '--disable-component-update'):
            options.add_argument(argument)
        options.add_experimental_option('prefs', {
            'intl.accept_languages': language,
            'profile.managed_default_content_settings.javascript': 1 if script else 2})
        super().__init__(service=Service('/usr/bin/chromedriver'), options=options)
        self.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {
            'width': width, 'height': 700, 'deviceScaleFactor': 1, 'mobile': width < 600})
        self.execute_cdp_cmd('Emulation.setEmulatedMedia', {
            'features': [{'name': 'prefers-color-scheme', 'value': scheme}]})

    def one(self, selector):
        return self.find_element(By.CSS_SELECTOR, selector)

    def photo(self, name):
        size = self.execute_cdp_cmd('Page.getLayoutMetrics', {})['cssContentSize']
        shot = self.execute_cdp_cmd('Page.captureScreenshot', {
            'captureBeyondViewport': True, 'clip': {**size, 'scale': 1}})
        with open(f'{FOLDER}/{name}.png', 'wb') as file:
            file.write(base64.b64decode(shot['data']))

    def names(self, role):
        """What a screen reader says of all elements of this role."""
        nodes = self.execute_cdp_cmd('Accessibility.getFullAXTree', {})['nodes']
        return [n['name']['value'] for n in nodes if n.get('role', {}).get('value') == role and not n['ignored']]

    def open_until(self, phase, seconds):
        """Asks for the page until it is the one of this phase; a robot that has no soft AP is asked again."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            try:
                self.get(URL)
                if self.one('body').get_attribute('data-phase') == phase:
                    return
            except WebDriverException:
                pass
            time.sleep(1)
        raise AssertionError(f'no page of phase {phase} within {seconds} s')

    def turns_into(self, phase, seconds):
        """Waits until the page itself, asked by nobody, is the one of this phase."""
        end = time.monotonic() + seconds
        while self.execute_script('return document.body.dataset.phase') != phase:
            assert time.monotonic() < end, f'the page did not turn into {phase} within {seconds} s'
            time.sleep(0.5)

    def send(self, password):
        self.one('#pass').send_keys(password)
        self.one('button').click()


def check(right, text):
    assert right, text


def look(name, width, **how):
    page = Page(width, **how)
    page.open_until('form', 900)
    page.photo(name)
    check(page.execute_script('return document.documentElement.scrollWidth') <= width, f'{name}: wider than the screen')
    radios = page.names('radio')
    check(any(r.startswith('Lab Home') for r in radios) and not any('Neighbour' in r for r in radios), f'{name}: {radios}')
    check('WPA3' in page.one('.no').text, f'{name}: no reason')
    check(page.one('label.show').is_displayed() == how.get('script', True), f'{name}: the switch of the password')
    return page


def mistype(page):
    """By keyboard only: too short, shown on request, then sent."""
    page.one(f'[value="{LAB_HOME}"]').send_keys(Keys.SPACE)
    field = page.one('#pass')
    field.send_keys('short' + Keys.ENTER)
    check(page.one('#e-pass').text and page.switch_to.active_element == field, 'the length is not checked')
    field.clear()
    field.send_keys(WRONG)
    check(not page.one('#e-pass').text, 'the error outlives its cause')
    page.one('#show').send_keys(Keys.SPACE)
    check(field.get_attribute('type') == 'text', 'the password is not shown')
    page.photo('shown')
    field.send_keys(Keys.ENTER)
    page.turns_into('trying', 30)
    page.photo('trying')
    page.turns_into('form', 300)
    page.photo('wrong-password')
    check('Lab Home' in page.one('.fault').text, 'no reason')
    check(page.one(f'[value="{LAB_HOME}"]').is_selected(), 'the name is not filled in')
    for text in (WRONG, 'short'):
        check(text not in page.page_source, 'a password in the page')
    severe = [entry for entry in page.get_log('browser') if 'Content Security Policy' in entry['message']]
    check(not severe, f'the page breaks its own rules: {severe}')


def main():
    for name, how in {'narrow-light': {'width': 320}, 'wide-dark': {'width': 1100, 'scheme': 'dark'},
                      'narrow-german': {'width': 320, 'language': 'de', 'scheme': 'dark'}}.items():
        page = look(name, **how)
        if name == 'narrow-german':
            check(page.one('html').get_attribute('lang') == 'de', 'not in German')
        page.quit()
    page = look('narrow-with-script', 320)
    mistype(page)
    page.quit()
    # Without script the owner opens the page again, or the phone does.
    page = look('wide-without-script', 1100, script=False)
    page.one('#other').click()
    page.one('summary').click()
    page.one('#addr').send_keys('192.168.77.300')
    page.send(RIGHT)
    page.photo('errors')
    check(page.one('#e-name').text and page.one('#e-addr').text and not page.one('#pass').get_attribute('value'), 'no errors')
    page.open_until('form', 10)
    page.one(f'[value="{LAB_HOME}"]').click()
    page.send(RIGHT)
    page.photo('trying-without-script')
    page.open_until('connected', 300)
    page.photo('connected')
    check('192.168.77.1' in page.one('strong').text, 'no address')
    page.quit()


if __name__ == '__main__':
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    URL, FOLDER = sys.argv[1:]
    main()
