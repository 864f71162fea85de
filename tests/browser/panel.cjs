// The car's panel in Debian's chromium, driven by playwright-core: bad input
// to the HTTP endpoint changes nothing; a 9-1-1 call held on the mirror
// button, answered and hung up from the centre's buttons, is watched on the
// LED, the service's state, the timeline and the call's chart. Every wait is
// for something the page shows, with a deadline.
//   node panel.cjs URL OUTDIR    (OUTDIR gets panel-call.png, panel-end.png and call-chart.png)
'use strict';
const { chromium } = require('playwright-core');
const fs = require('fs');
const net = require('net');
const os = require('os');
const path = require('path');

const [url, outDir] = process.argv.slice(2);
const timeout = 60000;

function check(ok, what) {
  if (!ok) throw new Error(what);
}

// A request that is not HTTP at all, straight on the socket (kept open for
// the answer: a client that closes its side is not answered).
function rawRequest(text) {
  const { hostname, port } = new URL(url);
  return new Promise((resolve, reject) => {
    const socket = net.connect(port, hostname, () => socket.write(text));
    let answer = '';
    socket.setTimeout(timeout, () => socket.destroy(new Error('no answer to ' + JSON.stringify(text))));
    socket.on('data', (d) => { answer += d; });
    socket.on('end', () => resolve(answer));
    socket.on('error', reject);
  });
}

async function badInputChangesNothing() {
  const status = async () => (await fetch(url + 'status')).text();
  const post = (body) => fetch(url + 'command', { method: 'POST', body });
  const before = await status();
  let r = await post('launch rockets');
  check(r.status === 400 && (await r.text()).startsWith('error unknown command launch'), 'an unknown command');
  r = await post('phone off\nphone on');
  check(r.status === 400 && (await r.text()).startsWith('error a command is one line'), 'two lines in one');
  r = await post('phone ' + 'x'.repeat(2000));
  check(r.status === 413 && (await r.text()).startsWith('error'), `an oversized body gave ${r.status}`);
  r = await post('quit');
  check(r.status === 400, 'quit from the panel');
  r = await fetch(url + 'speech/..%2F..%2Fetc%2Fpasswd');
  check(r.status === 404, 'a prompt outside the speech folder');
  check(/^HTTP\/1\.1 400/.test(await rawRequest('NONSENSE\r\n\r\n')), 'a request that is not HTTP');
  const after = await status();
  check(before === after, `bad input changed the car:\n${before}\n${after}`);
}

async function callFromThePanel(page) {
  const text = (selector) => page.locator(selector).textContent();
  const waitFor = (fn, arg) => page.waitForFunction(fn, arg, { timeout });
  const waitText = (selector, part) =>
    waitFor(([s, p]) => document.querySelector(s).textContent.includes(p), [selector, part]);
  // Every colour the LED shows, however briefly.
  const waitLedSeen = (colour) => waitFor((c) => window.ledSeen.includes(c), colour);

  await page.goto(url);
  await waitText('#service', 'yes');
  await page.evaluate(() => {
    window.ledSeen = [];
    new MutationObserver((records) => {
      for (const r of records) window.ledSeen.push(r.oldValue);
      window.ledSeen.push(records[0].target.dataset.led);
    }).observe(document.getElementById('led'), { attributes: true, attributeOldValue: true });
  });

  // The 9-1-1 button stays pressed while the mouse is down.
  const button = await page.locator('#btn-ecall').boundingBox();
  await page.mouse.move(button.x + button.width / 2, button.y + button.height / 2);
  await page.mouse.down();
  await waitText('#timeline', 'E_CALL_BtnStat::1');
  check(await page.locator('#btn-ecall.pressed').count() === 1, 'the held button does not look pressed');
  await waitLedSeen('solid green');
  check(!(await text('#timeline')).includes('E_CALL_BtnStat::0'), 'released while the mouse is still down');
  await page.mouse.up();
  await waitText('#timeline', 'E_CALL_BtnStat::0');

  await waitText('#timeline', 'EmbeddedPhone.ecallDial');
  await waitText('#call', 'ALERTING');
  await page.click('#psap-answer');
  await waitText('#call', 'ACTIVE');
  // Assist during the call: the LED blinks, then is steady again.
  await page.click('#btn-assist');
  await waitLedSeen('blinking green');
  await waitText('#led-text', 'solid green');
  check((await text('#mode')) === 'yes', 'emergency mode during the call');
  await page.screenshot({ path: path.join(outDir, 'panel-call.png'), fullPage: true });

  await page.click('#psap-hangup');
  await waitText('#call', 'idle');
  await waitFor(() => document.getElementById('mode').textContent === 'no' &&
                      document.getElementById('led').dataset.led === 'off');
  await page.screenshot({ path: path.join(outDir, 'panel-end.png'), fullPage: true });
  await callChart(page, waitFor);
}

// The chart: the call's arrows in order, and once it has ended the service's
// stage times in order in place of what the car saw.
async function callChart(page, waitFor) {
  await waitFor(() => document.querySelector('#chart .mark.service[data-stage="end"]'));
  const chart = await page.evaluate(() => ({
    arrows: [...document.querySelectorAll('#chart .arrow')]
      .map((a) => [a.dataset.label, +a.querySelector('line').getAttribute('y1')]),
    marks: [...document.querySelectorAll('#chart .mark')]
      .map((m) => [m.dataset.stage, +m.dataset.ms, +m.dataset.y, m.classList.contains('seen')]),
  }));
  let at = 0;
  for (const part of ['E_CALL_BtnStat::1', 'ecallDial', 'calls the centre', 'callState ALERTING', 'callState ACTIVE',
    'ttsReadout', 'callState TERMINATED', 'ecall off none']) {
    at = chart.arrows.findIndex(([label], i) => i >= at && label.includes(part));
    check(at >= 0, `no arrow "${part}" in its place: ${JSON.stringify(chart.arrows.map(([l]) => l))}`);
  }
  check(chart.arrows.every(([, y], i) => i === 0 || y >= chart.arrows[i - 1][1]), 'arrows out of order');
  const stages = ['trigger', 'numberRead', 'dialSent', 'dialling', 'alerting', 'active', 'end'];
  const marks = chart.marks.filter((m) => stages.includes(m[0]));
  check(!chart.marks.some((m) => m[3]), 'the car\'s own marks stayed beside the service\'s');
  check(JSON.stringify(marks.map((m) => m[0])) === JSON.stringify(stages), `marks: ${JSON.stringify(chart.marks)}`);
  check(marks.every((m, i) => i === 0 || (m[1] >= marks[i - 1][1] && m[2] >= marks[i - 1][2])), 'marks out of order');
  await page.evaluate(([top, bottom]) => {
    const box = document.getElementById('chart-box');
    const scale = box.clientWidth / 1300;
    box.style.maxHeight = `${(bottom - top + 60) * scale}px`;
    box.scrollTop = (top - 30) * scale;
  }, [marks[0][2], marks[marks.length - 1][2]]);
  await page.locator('#chart-section').screenshot({ path: path.join(outDir, 'call-chart.png') });
}

async function main() {
  await badInputChangesNothing();
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'panel-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  try {
    await callFromThePanel(context.pages()[0] || (await context.newPage()));
  } finally {
    await context.close();
    fs.rmSync(profile, { recursive: true, force: true });
  }
}

main().then(() => console.log('panel: ok'), (err) => {
  console.error('panel: ' + (err.stack || err));
  process.exit(1);
});
