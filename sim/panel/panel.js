// The car's panel. Everything shown comes from the car's record (the same
// entries as --record), live from /events or, in a saved timeline, from
// RECORD; every button sends a console command line to /command, so the
// panel can do exactly what the console can and nothing else.
'use strict';
const $ = (id) => document.getElementById(id);
const LED = ['off', 'solid green', 'blinking green', 'red'];
const saved = typeof RECORD !== 'undefined';
let start = null;

function reset() {
  start = null;
  for (const id of ['timeline', 'prompts', 'log']) $(id).textContent = '';
  chartReset();
  showLed(0);
  showEcall({});
  $('service').textContent = 'no';
  $('syserror').textContent = 'none';
}

function showLed(status) {
  const name = LED[status] || 'unknown';
  $('led').dataset.led = name;
  $('led-text').textContent = name;
}

function showEcall(s) {
  $('mode').textContent = s.ecallModeActive ? 'yes' : 'no';
  $('type').textContent = s.type || 'none';
  $('event').textContent = s.ecall ? `${s.event}: ${s.eventdetail}` : 'NONE';
  $('number-called').textContent = s.phoneNumber || '-';
  if (s.type === 'systemError') $('syserror').textContent = s.eventdetail || s.event;
}

// The car's part of a "status" line: phone=on antenna=normal number=911
// call=idle, and the vehicle configuration's testnumber=5550100.
function showStatus(line) {
  for (const key of ['phone', 'antenna', 'number', 'call', 'testnumber']) {
    const m = line.match(new RegExp(`(?:^| )${key}=(\\S*)`));
    if (m) $(key).textContent = m[1];
  }
}

// One question at a time, and one more if something changed meanwhile.
let asking = false;
let askAgain = false;
function refreshStatus() {
  if (asking) {
    askAgain = true;
    return;
  }
  asking = true;
  fetch('status').then((r) => r.text()).then(showStatus, () => {}).finally(() => {
    asking = false;
    if (askAgain) {
      askAgain = false;
      refreshStatus();
    }
  });
}

function parse(text) {
  try { return JSON.parse(text); } catch { return null; }
}

const hex = (bytes) => (bytes || []).map((b) => b.toString(16).padStart(2, '0')).join(' ');

// One readable line per entry, and what the entry changes on the panel.
function describe(e) {
  switch (e.kind) {
    case 'request': return `${e.service}.${e.method} ${e.params}${e.reply ? ' => ' + e.reply.trim() : ''}`;
    case 'signal': return `${e.service}.${e.name} ${e.data.trim()}`;
    case 'ecall': case 'ecallProgress': return `ecallService.${e.kind} ${e.data.trim()}`;
    case 'channel':
      if (e.bytes.length === 2 && e.bytes[0] === 1) return `mirror LED ${LED[e.bytes[1]] || e.bytes[1]}`;
      return `from the service: ${hex(e.bytes)}`;
    case 'vehicle': return e.event === 'button' ? `${e.name}::${e.value}` : `${e.event} ${hex(e.bytes)}`;
    case 'command': return `${e.from === 'panel' ? 'panel' : 'console'}> ${e.line}  => ${e.reply}`;
    case 'peer': return `${e.service} ${e.state}`;
    case 'log': return e.line;
    case 'timings': return `ecallService call timings ${e.data.trim()}`;
    default: return e.file || e.url || e.event || '';
  }
}

function apply(e) {
  if (e.kind === 'channel' && e.bytes.length === 2 && e.bytes[0] === 1) showLed(e.bytes[1]);
  if (e.kind === 'ecall') showEcall(parse(e.data) || {});
  if (e.kind === 'peer' && e.service === 'ecallService') $('service').textContent = e.state === 'up' ? 'yes' : 'no';
  if (e.kind === 'log') $('log').textContent += e.line + '\n';
  // The phone's state is the car's own: asked again whenever it may change.
  if (e.kind === 'command' && e.line.trim() === 'status') showStatus(e.reply);
  else if (!saved && (e.kind === 'command' || (e.kind === 'signal' && e.service === 'EmbeddedPhone'))) refreshStatus();
  if (e.kind === 'request' && e.method === 'ttsReadout') {
    const p = parse(e.params) || {};
    const li = document.createElement('li');
    li.textContent = `(${p.readoutType}) ${p.data} `;
    $('prompts').append(li);
  }
  if (e.kind === 'speech' && e.ok) {
    const name = e.file.split('/').pop();
    const li = $('prompts').children[parseInt(name, 10) - 1];
    const audio = document.createElement('audio');
    audio.controls = true;
    audio.src = saved ? 'file://' + e.file : 'speech/' + encodeURIComponent(name);
    if (li) li.append(audio);
  }
}

// ---- The call as a sequence chart (inline SVG): a lane per party, an
// arrow per request, signal and channel message in the order of its time
// (one recorded late goes into its place), with its time; the service's own
// stage times (its "getLastCallTimings" answer, recorded when a call ends)
// as marks across the lanes. Until then the stages the car saw itself are
// marked in grey. A row's gap grows with the logarithm of the pause before
// it: bursts stay readable, waits show.
const SVG = 'http://www.w3.org/2000/svg';
const LANES = ['airbag controller, mirror', 'ecallService', 'embedded phone', 'emergency centre', 'speech service',
  'rest of the head unit'];
const [CAR, SERVICE, PHONE, CENTRE, SPEECH, HEAD] = LANES.keys();
const laneX = (lane) => 100 + lane * 180;
const MARKS_X = laneX(LANES.length - 1) + 80;
const STAGES = { numberRead: 'number read', dialSent: 'dial sent', dialling: 'dialling', alerting: 'alerting',
  callbackAnswered: 'call-back answered', active: 'active', announcementStarted: 'announcement started',
  announcementFinished: 'announcement finished', end: 'end' };
let chart;

function svg(parent, name, attrs, text) {
  const node = document.createElementNS(SVG, name);
  for (const [k, v] of Object.entries(attrs)) node.setAttribute(k, v);
  if (text !== undefined) node.textContent = text;
  parent.append(node);
  return node;
}

function chartReset() {
  // items: the rows in time order; timings: the service's answers; seen:
  // the rows with a stage the car saw, after the last call timed.
  chart = { items: [], timings: [], seen: [], timedUntil: -Infinity, lastMarkT: -Infinity, serviceBottom: 0,
    marksBottom: 0, call: {} };
  $('chart').textContent = '';
  $('chart-lanes').textContent = '';
  LANES.forEach((name, lane) => svg($('chart-lanes'), 'text', { x: laneX(lane), y: 20, class: 'lane' }, name));
  svg($('chart-lanes'), 'text', { x: 4, y: 20, class: 'stage' }, 's');
  svg($('chart-lanes'), 'text', { x: MARKS_X, y: 20, class: 'stage' }, 'stages, ms after trigger');
  chart.lines = svg($('chart'), 'g', {});
  LANES.forEach((_, lane) => svg(chart.lines, 'line', { x1: laneX(lane), x2: laneX(lane), y1: 0, y2: 0,
    class: 'lane' }));
  chart.rows = svg($('chart'), 'g', {});
  chart.serviceMarks = svg($('chart'), 'g', {});
  chart.seenMarks = svg($('chart'), 'g', {});
}

const laneOf = (service) => ({ EmbeddedPhone: PHONE, TextToSpeechService: SPEECH }[service] ?? HEAD);
const callStates = (data) => ((parse(data) || {}).callStateInfo || [])
  .map((c) => String(c.callState).replace('CALL_STATE_', ''));

// The arrows an entry draws: [from, to, label, class].
function arrowsOf(e) {
  const call = chart.call;
  switch (e.kind) {
    case 'request': {
      const to = laneOf(e.service);
      return [[SERVICE, to, `${to === HEAD ? e.service + '.' : ''}${e.method} ${e.params.trim()}`, 'request']];
    }
    case 'signal': {
      if (e.service !== 'EmbeddedPhone' || e.name !== 'callState') {
        return [[laneOf(e.service), SERVICE, `${e.name} ${e.data.trim()}`, 'signal']];
      }
      // The centre's side of the call, as the phone tells it: the call
      // reaching it and its answer (by itself, or on "psap answer").
      const states = callStates(e.data);
      const arrows = [[PHONE, SERVICE, `callState ${states.join(' ')}`, 'signal']];
      if (states.includes('DIALING')) {
        Object.assign(call, { outgoing: true, answered: false });
        arrows.push([PHONE, CENTRE, 'calls the centre', 'centre']);
      } else if (states.includes('RINGING')) {
        call.outgoing = false;
      } else if (states.includes('ACTIVE') && call.outgoing && !call.answered) {
        call.answered = true;
        arrows.push([CENTRE, PHONE, 'answers', 'centre']);
      }
      return arrows;
    }
    case 'ecall': {
      const s = parse(e.data) || {};
      return [[SERVICE, HEAD, `ecall ${s.ecall ? 'on' : 'off'} ${s.type} ${s.ecall ? s.event : ''}`.trim(), 'ecall']];
    }
    case 'ecallProgress': return [[SERVICE, HEAD, `ecallProgress ${e.data.trim()}`, 'ecall']];
    case 'channel': return [[SERVICE, CAR, describe(e), 'channel']];
    case 'vehicle': return e.bytes || e.event === 'button' ? [[CAR, SERVICE, describe(e), 'channel']] : [];
    case 'command': {
      // The centre's other commands; its answer is drawn from the phone's.
      const line = e.line.trim();
      if (!/^(psap (hangup|callback)|dtmf|wend)\b/.test(line) || !e.reply.startsWith('ok')) return [];
      return [[CENTRE, PHONE, line, 'centre']];
    }
    default: return [];
  }
}

// What the car saw of a stage before the service tells its own figures.
function seenStage(e) {
  if (e.kind === 'request' && e.method === 'ecallDial') return 'dialSent';
  if (e.kind !== 'signal' || e.name !== 'callState') return null;
  return { DIALING: 'dialling', ALERTING: 'alerting', ACTIVE: 'active' }[callStates(e.data)[0]] || null;
}

function drawRow(item) {
  const { y } = item;
  item.g = svg(chart.rows, 'g', { class: 'row' });
  svg(item.g, 'text', { x: 4, y: y + 4, class: 'time' }, (item.t - start).toFixed(3));
  for (const [from, to, label, cls] of item.arrows) {
    const x1 = laneX(from);
    const x2 = laneX(to);
    const dir = Math.sign(x2 - x1);
    const g = svg(item.g, 'g', { class: `arrow ${cls}`, 'data-label': label });
    svg(g, 'title', {}, label);
    svg(g, 'line', { x1, x2: x2 - dir * 6, y1: y, y2: y });
    svg(g, 'polygon', { points: `${x2},${y} ${x2 - dir * 8},${y - 3.5} ${x2 - dir * 8},${y + 3.5}` });
    const room = Math.floor(Math.abs(x2 - x1) / 6.2);
    svg(g, 'text', { x: (x1 + x2) / 2, y: y - 4 }, label.length > room ? label.slice(0, room - 1) + '\u2026' : label);
  }
}

// Where on the chart a time falls, between the rows around it.
function yAt(t) {
  const items = chart.items;
  let i = items.length - 1;
  while (i > 0 && items[i].t > t) i--;
  if (i < 0) return 20;
  const a = items[i];
  const b = items[i + 1];
  if (t <= a.t) return a.y;
  return b ? a.y + ((b.y - a.y) * (t - a.t)) / (b.t - a.t) : a.y + 4;
}

// A stage's line across the lanes at its time, its label in the margin
// below the label before it.
function drawMark(group, stage, ms, t, cls, below) {
  const y = yAt(t);
  const labelY = Math.max(y + 4, below + 12);
  const g = svg(group, 'g', { class: `mark ${cls}`, 'data-stage': stage, 'data-ms': ms, 'data-y': y.toFixed(1) });
  svg(g, 'line', { x1: laneX(0), x2: MARKS_X - 4, y1: y, y2: y });
  svg(g, 'line', { x1: MARKS_X - 4, x2: MARKS_X, y1: y, y2: labelY - 4, class: 'leader' });
  const name = stage === 'trigger' ? 'trigger' : STAGES[stage] || stage;
  svg(g, 'text', { x: MARKS_X + 2, y: labelY }, cls === 'seen' ? `${name} (as the car saw it)` : `${name} ${ms}`);
  return labelY;
}

// The service's figures of every call timed, and below their labels the
// car's own for the call not timed yet.
function drawServiceMarks() {
  chart.serviceMarks.textContent = '';
  let below = 0;
  for (const timings of chart.timings) {
    const stages = Object.entries(timings.stages || {}).sort((a, b) => a[1] - b[1]);
    for (const [stage, ms] of [['trigger', 0], ...stages]) {
      const t = (timings.trigger + ms) / 1000;
      below = drawMark(chart.serviceMarks, stage, ms, t, 'service', below);
      chart.lastMarkT = Math.max(chart.lastMarkT, t);
    }
  }
  chart.serviceBottom = below;
}

function drawSeenMarks() {
  chart.seenMarks.textContent = '';
  let below = chart.serviceBottom;
  for (const item of chart.seen) below = drawMark(chart.seenMarks, item.seen, '', item.t, 'seen', below);
  chart.marksBottom = below;
}

// Lays the rows out again from index from on, and the marks a new row may
// have moved; the chart follows the end while the reader is there.
function layout(from) {
  const items = chart.items;
  for (let i = from; i < items.length; i++) {
    const before = items[i - 1];
    const pause = before ? Math.max(0, items[i].t - before.t) * 1000 : 0;
    items[i].y = before ? before.y + 18 + Math.min(60, 14 * Math.log10(1 + pause)) : 30;
    if (items[i].g) items[i].g.remove();
    drawRow(items[i]);
  }
  const before = items[from - 1];
  if (from < items.length - 1 || (before && chart.lastMarkT >= before.t)) drawServiceMarks();
  drawSeenMarks();
  const box = $('chart-box');
  const atEnd = box.scrollTop + box.clientHeight >= box.scrollHeight - 4;
  const last = items[items.length - 1];
  const bottom = Math.max(last ? last.y : 0, chart.marksBottom) + 20;
  for (const line of chart.lines.children) line.setAttribute('y2', bottom);
  $('chart').setAttribute('viewBox', `0 0 1300 ${bottom}`);
  if (atEnd) box.scrollTop = box.scrollHeight;
}

function chartAdd(e) {
  if (e.kind === 'timings') {
    const timings = parse(e.data) || {};
    if (timings.trigger === undefined) return;
    chart.timings.push(timings);
    chart.timedUntil = (timings.trigger + timings.stages.end) / 1000;
    chart.seen = chart.seen.filter((item) => item.t > chart.timedUntil);
    drawServiceMarks();
    layout(chart.items.length);
    return;
  }
  const arrows = arrowsOf(e);
  if (!arrows.length) return;
  let i = chart.items.length;
  while (i > 0 && chart.items[i - 1].t > e.t) i--;
  const item = { t: e.t, arrows, seen: seenStage(e) };
  chart.items.splice(i, 0, item);
  if (item.seen && item.t > chart.timedUntil) chart.seen.push(item);
  layout(i);
}

function add(e) {
  if (start === null) start = e.t;
  apply(e);
  chartAdd(e);
  const row = document.createElement('tr');
  row.className = e.kind;
  for (const text of [(e.t - start).toFixed(3), e.kind, describe(e)]) {
    const td = document.createElement('td');
    td.textContent = text;
    row.append(td);
  }
  const box = $('timeline-box');
  const atEnd = box.scrollTop + box.clientHeight >= box.scrollHeight - 4;
  $('timeline').append(row);
  if (atEnd) box.scrollTop = box.scrollHeight;
}

// Commands go one after the other, in the order given.
let queue = Promise.resolve();
function send(line) {
  queue = queue.then(() => fetch('command', { method: 'POST', body: line })
    .then((r) => r.text(), (err) => `error ${err}`)
    .then((text) => { $('reply').textContent = text.trim(); }));
  return queue;
}

function liveControls(table) {
  const known = new Set(table.commands.filter((c) => c.panel).map((c) => c.name));
  for (const kind of table.impactKinds)
    for (const path of ['can', 'serial']) {
      const b = document.createElement('button');
      b.textContent = `${kind} ${path === 'can' ? 'CAN' : 'ser'}`;
      b.dataset.command = `crash ${kind} ${path}`;
      $('crashes').append(b);
    }
  for (const b of document.querySelectorAll('[data-command]')) {
    b.disabled = !known.has(b.dataset.command.split(' ')[0]);
    b.addEventListener('click', () => send(b.dataset.command));
  }
  // A held button stays pressed for as long as the pointer is down.
  for (const b of document.querySelectorAll('button.hold')) {
    const release = () => {
      if (!b.classList.contains('pressed')) return;
      b.classList.remove('pressed');
      send(`button ${b.dataset.button} release`);
    };
    b.addEventListener('pointerdown', (ev) => {
      b.setPointerCapture(ev.pointerId);
      b.classList.add('pressed');
      send(`button ${b.dataset.button} press`);
    });
    b.addEventListener('pointerup', release);
    b.addEventListener('pointercancel', release);
    b.addEventListener('contextmenu', (ev) => ev.preventDefault());
  }
  const locs = [...document.querySelectorAll('input.loc')];
  for (const box of locs) box.addEventListener('change', () => send('loc ' + locs.map((c) => (c.checked ? 1 : 0)).join(' ')));
  $('console').addEventListener('submit', (ev) => { ev.preventDefault(); send($('line').value); });
  $('number-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    send(`set number ${$('number-input').value || 'none'}`);
  });
}

if (saved) {
  document.body.classList.add('saved');
  for (const control of document.querySelectorAll('button, input')) control.disabled = true;
  $('link').textContent = 'saved timeline';
  reset();
  RECORD.forEach(add);
} else {
  fetch('commands').then((r) => r.json()).then(liveControls);
  // The whole record comes again on every connection: after the car
  // restarted the page shows the new car only.
  const events = new EventSource('events');
  events.onopen = () => {
    reset();
    $('link').textContent = 'live';
    $('link').classList.add('live');
    refreshStatus();
  };
  events.onerror = () => {
    $('link').textContent = 'reconnecting';
    $('link').classList.remove('live');
  };
  events.onmessage = (m) => add(JSON.parse(m.data));
}
