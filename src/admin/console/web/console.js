// The Kestrin console: the fleet's table, one workstation's pages, the agents' events, and the
// everyday actions. Plain DOM code served by ambrant; state comes from /api/state and the
// /api/live WebSocket, actions go through /api/call.
'use strict';

const state = {
  agents: [],
  events: [],
  credentials: false,
  sortKey: 'agent',
  sortDown: false,
  filter: '',
  selected: null,
  tab: 'configuration',
};

const columns = [
  ['agent', 'Workstation'],
  ['name', 'Host name'],
  ['model', 'Model'],
  ['reachable', 'Reachable'],
  ['key', 'Key'],
  ['maintenance', 'Maintenance'],
  ['updates', 'Updates'],
  ['crashed', 'Crashed'],
  ['running', 'Running applications'],
];

const tabs = [
  ['configuration', 'Configuration'],
  ['applications', 'Applications'],
  ['plugins', 'Plug-ins'],
  ['crashes', 'Crash reports'],
  ['logs', 'Logs'],
  ['tasks', 'Tasks'],
  ['render', 'Render jobs'],
  ['backups', 'Backups'],
  ['updates', 'Updates'],
];

// ---- talking to ambrant

async function api(method, path, body) {
  const response = await fetch(path, {
    method,
    headers: { 'X-Kestrin-Console': '1', 'Content-Type': 'application/json' },
    body: body === undefined ? undefined : JSON.stringify(body),
    credentials: 'same-origin',
  });
  const text = await response.text();
  let value = null;
  try {
    value = text ? JSON.parse(text) : null;
  } catch (e) {
    value = { error: text };
  }
  return { status: response.status, value };
}

// One operation on one agent; asks for the administrator's credentials when it needs them.
async function call(agent, selector, args = []) {
  let reply = await api('POST', '/api/call', { agent, selector, arguments: args });
  if (reply.status === 428 && (await askCredentials())) {
    reply = await api('POST', '/api/call', { agent, selector, arguments: args });
  }
  if (reply.status !== 200) {
    throw new Error(reply.value && reply.value.error ? reply.value.error : `status ${reply.status}`);
  }
  if (reply.value.errorText) {
    if (reply.value.answer.$error.code === 1006) {
      state.credentials = false;
      renderHeader();
    }
    throw new Error(reply.value.errorText);
  }
  return reply.value.answer;
}

// ---- small DOM helpers

function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (key === 'onclick' || key === 'oninput' || key === 'onsubmit' || key === 'onkeydown') {
      node[key] = value;
    } else if (value !== undefined && value !== null && value !== false) {
      node.setAttribute(key, value === true ? '' : value);
    }
  }
  for (const child of children.flat()) {
    if (child !== null && child !== undefined) {
      node.append(child instanceof Node ? child : String(child));
    }
  }
  return node;
}

// State is shown by a word and a colour together, never by colour alone.
function badge(good, yes, no) {
  return el('span', { class: good ? 'badge good' : 'badge bad' }, good ? yes : no);
}

function show(value) {
  if (value === null || value === undefined) return '';
  if (typeof value === 'object') {
    if ('$data' in value) return `(${Math.floor((value.$data.length * 3) / 4)} bytes)`;
    if ('$date' in value) return value.$date;
    return JSON.stringify(value);
  }
  return String(value);
}

function keyValueTable(dictionary, caption) {
  const rows = Object.entries(dictionary || {}).map(([key, value]) =>
    el('tr', {}, el('th', { scope: 'row' }, key), el('td', {}, show(value))),
  );
  return el('table', { class: 'details' }, el('caption', {}, caption), el('tbody', {}, rows));
}

function status(message, good = true) {
  const line = document.getElementById('status');
  line.textContent = message;
  line.className = good ? 'good' : 'bad';
}

// ---- credentials, asked once per browser session

function askCredentials() {
  return new Promise((resolve) => {
    const dialog = document.getElementById('credentials');
    const form = dialog.querySelector('form');
    form.reset();
    form.onsubmit = async (event) => {
      event.preventDefault();
      const user = form.elements.user.value;
      const password = form.elements.password.value;
      form.reset();
      const reply = await api('POST', '/api/credentials', { user, password });
      state.credentials = reply.status === 204;
      dialog.close();
      renderHeader();
      resolve(state.credentials);
    };
    dialog.querySelector('.cancel').onclick = () => {
      dialog.close();
      resolve(false);
    };
    dialog.showModal();
    form.elements.user.focus();
  });
}

async function forgetCredentials() {
  await api('DELETE', '/api/credentials');
  state.credentials = false;
  renderHeader();
}

// ---- the fleet's table

function sortedAgents() {
  const filter = state.filter.toLowerCase();
  const rows = state.agents.filter(
    (row) => !filter || JSON.stringify(row).toLowerCase().includes(filter),
  );
  const key = state.sortKey;
  rows.sort((a, b) => {
    const x = show(a[key]);
    const y = show(b[key]);
    return (x < y ? -1 : x > y ? 1 : 0) * (state.sortDown ? -1 : 1);
  });
  return rows;
}

function renderTable() {
  const section = document.getElementById('fleet');
  section.replaceChildren();
  section.append(
    el('h2', {}, `Workstations (${state.agents.length})`),
    el(
      'label',
      { class: 'filter' },
      'Filter ',
      el('input', {
        type: 'search',
        id: 'filter',
        value: state.filter,
        oninput: (event) => {
          state.filter = event.target.value;
          renderRows();
        },
      }),
    ),
  );
  const header = el(
    'tr',
    {},
    columns.map(([key, title]) =>
      el(
        'th',
        {
          scope: 'col',
          'aria-sort':
            state.sortKey === key ? (state.sortDown ? 'descending' : 'ascending') : 'none',
        },
        el(
          'button',
          {
            class: 'sort',
            onclick: () => {
              state.sortDown = state.sortKey === key ? !state.sortDown : false;
              state.sortKey = key;
              renderTable();
            },
          },
          title,
        ),
      ),
    ),
  );
  section.append(
    el('table', { id: 'agents' }, el('thead', {}, header), el('tbody', { id: 'agent-rows' })),
  );
  renderRows();
}

function renderRows() {
  const body = document.getElementById('agent-rows');
  if (!body) return;
  body.replaceChildren(
    ...sortedAgents().map((row) =>
      el(
        'tr',
        { 'data-agent': row.agent },
        el(
          'td',
          {},
          el('button', { class: 'link', onclick: () => openAgent(row.agent) }, row.agent),
        ),
        el('td', {}, row.name),
        el('td', {}, row.model),
        el('td', { title: row.error || '' }, badge(row.reachable, 'reachable', 'unreachable')),
        el('td', {}, badge(row.key !== 'CHANGED', row.key, 'CHANGED key')),
        el('td', {}, row.maintenance ? badge(false, '', 'requested') : 'no'),
        el('td', {}, row.updates === null ? '' : badge(row.updates === 0, '0', String(row.updates))),
        el('td', {}, row.crashed ? badge(false, '', 'crashed') : 'no'),
        el('td', {}, row.running.join(', ')),
      ),
    ),
  );
}

// ---- events from every agent, newest first

function describeEvent(event) {
  if (event.kind === 'error') return event.description || `error ${event.errorcode ?? ''}`;
  if (event.kind === 'progress') return 'progress';
  if (event.kind === 'finished') return 'task finished';
  if (event.kind === 'gone') return 'the agent went away';
  if (event.kind === 'event') return `${event.selector} ${show(event.arguments)}`;
  return event.kind;
}

function renderEvents() {
  const list = document.getElementById('event-list');
  list.replaceChildren(
    ...state.events.slice(0, 200).map((event) =>
      el(
        'li',
        { class: `event ${event.kind}` },
        el('time', {}, new Date(event.time * 1000).toLocaleTimeString()),
        ' ',
        el('strong', {}, event.agent || 'console'),
        ' ',
        el('span', { class: 'kind' }, event.kind),
        ' ',
        describeEvent(event),
        event.actionType === 1 ? el('span', { class: 'badge bad' }, 'install or update software') : null,
      ),
    ),
  );
}

function addEvents(events) {
  for (const event of events) {
    state.events.unshift(event);
    // An agent refused the password: ambrant has forgotten it, and the header says so.
    if (event.errorcode === 1006 && state.credentials) {
      state.credentials = false;
      renderHeader();
    }
  }
  state.events.length = Math.min(state.events.length, 500);
  renderEvents();
}

// ---- one workstation

async function openAgent(agent) {
  state.selected = agent;
  await api('POST', '/api/seen', { agent });
  renderAgent();
}

function closeAgent() {
  state.selected = null;
  document.getElementById('workstation').hidden = true;
  document.getElementById('fleet').hidden = false;
}

function renderAgent() {
  const section = document.getElementById('workstation');
  document.getElementById('fleet').hidden = true;
  section.hidden = false;
  section.replaceChildren(
    el('button', { onclick: closeAgent }, '← All workstations'),
    el('h2', {}, state.selected),
    el(
      'div',
      { role: 'tablist' },
      tabs.map(([key, title]) =>
        el(
          'button',
          {
            role: 'tab',
            'aria-selected': state.tab === key ? 'true' : 'false',
            onclick: () => {
              state.tab = key;
              renderAgent();
            },
          },
          title,
        ),
      ),
    ),
    el('div', { id: 'tab', role: 'tabpanel' }, 'Asking the agent…'),
  );
  const panel = document.getElementById('tab');
  pages[state.tab](state.selected)
    .then((content) => panel.replaceChildren(content))
    .catch((error) => panel.replaceChildren(el('p', { class: 'bad' }, error.message)));
}

// An action's button: shows that it runs, then its result.
function action(label, run) {
  const button = el('button', {}, label);
  button.onclick = async () => {
    button.disabled = true;
    status(`${label}…`);
    try {
      const answer = await run();
      status(`${label}: done${answer === undefined || answer === null ? '' : ` (${show(answer)})`}`);
    } catch (error) {
      status(`${label}: ${error.message}`, false);
    } finally {
      button.disabled = false;
    }
  };
  return button;
}

function pluginList(agent, group, depth = 0) {
  const items = [];
  for (const child of group.children || []) {
    if (child.children) {
      items.push(el('li', {}, el('strong', {}, child.name || ''), pluginList(agent, child, depth + 1)));
      continue;
    }
    const enabled = child.enabled !== false;
    items.push(
      el(
        'li',
        {},
        `${child.name || child.fullPath} ${child.version ? `(${child.version})` : ''} `,
        badge(enabled, 'enabled', 'disabled'),
        ` ${child.domain || ''} `,
        action(enabled ? 'Disable' : 'Enable', () =>
          call(agent, 'vantryEnablePlugin:settings:', [child, { enable: !enabled, authInfo: { $credentials: null } }]),
        ),
        ' ',
        action('Copy to the other workstations', async () => {
          const to = state.agents.map((row) => row.agent).filter((other) => other !== agent);
          const reply = await api('POST', '/api/copy-plugin', { from: agent, path: child.fullPath, to });
          if (reply.status !== 200) throw new Error(reply.value.error);
          const failed = reply.value.results.filter((result) => result.error);
          return `${reply.value.results.length - failed.length} installed, ${failed.length} failed`;
        }),
      ),
    );
  }
  return el('ul', {}, items);
}

const pages = {
  async configuration(agent) {
    const [configuration, specs] = await Promise.all([
      call(agent, 'initialConfiguration'),
      call(agent, 'systemSpecs'),
    ]);
    return el('div', {}, keyValueTable(configuration, 'Configuration'), keyValueTable(specs, 'System'));
  },
  async applications(agent) {
    const apps = await call(agent, 'ambrantAppInfo');
    const rows = Object.entries(apps || {}).map(([name, app]) =>
      el(
        'tr',
        {},
        el('th', { scope: 'row' }, name),
        el('td', {}, badge(app.installed, 'installed', 'not installed')),
        el('td', {}, app.running ? badge(true, 'running', '') : 'no'),
        el('td', {}, app.version || ''),
        el('td', {}, app.installed ? action(`Launch ${name}`, () => call(agent, 'launchApp:', [name])) : ''),
        el('td', {}, app.running ? action(`Quit ${name}`, () => call(agent, 'terminateApp:', [name])) : ''),
      ),
    );
    return el(
      'table',
      { class: 'details' },
      el('caption', {}, 'Applications'),
      el('thead', {}, el('tr', {}, ['Name', 'Installed', 'Running', 'Version', '', ''].map((t) => el('th', { scope: 'col' }, t)))),
      el('tbody', {}, rows),
    );
  },
  async plugins(agent) {
    const tree = await call(agent, 'vantryPluginTree');
    return el('div', {}, el('h3', {}, 'Plug-ins'), pluginList(agent, tree || {}));
  },
  async crashes(agent) {
    const logs = await call(agent, 'gatherLogs');
    const names = Object.keys(logs || {}).filter((name) => /crash|Diagnostic/i.test(name));
    return el(
      'ul',
      { class: 'logs' },
      names.length ? null : el('li', {}, 'No crash reports.'),
      names.map((name) =>
        el(
          'li',
          {},
          logLink(agent, name),
          ' ',
          action('Analyse with Tovell', () => call(agent, 'tovellGetDefinition:', [name.split('/').pop()])),
        ),
      ),
    );
  },
  async logs(agent) {
    const logs = await call(agent, 'gatherLogs');
    const names = Object.keys(logs || {});
    const viewer = el('pre', { id: 'log-view', tabindex: '0' });
    return el(
      'div',
      {},
      el(
        'ul',
        { class: 'logs' },
        names.map((name) =>
          el(
            'li',
            {},
            logLink(agent, name),
            ' ',
            el('button', {
              onclick: () => {
                viewer.textContent = atob((logs[name] || {}).$data || '');
              },
            }, 'View'),
          ),
        ),
      ),
      viewer,
    );
  },
  async tasks(agent) {
    const [apps, scheduled] = await Promise.all([
      call(agent, 'qvAppTasks'),
      call(agent, 'tibbetTaskDictionary').catch(() => null),
    ]);
    const list = el('ul', { class: 'tasks' });
    for (const app of apps || []) {
      for (const task of app.tasks || []) {
        const id = task.id || (task.command || []).join(' ');
        list.append(
          el(
            'li',
            {},
            `${app.name}: ${task.description || id} `,
            action(`Run ${id}`, () => call(agent, 'executeTask:bundleID:options:', [id, app.bundleid, []])),
            ' ',
            action(`Run ${id} as administrator`, () =>
              call(agent, 'authExecuteTask:bundleID:options:username:password:', [
                id, app.bundleid, [], { $user: null }, { $password: null },
              ]),
            ),
          ),
        );
      }
    }
    if (!list.children.length) list.append(el('li', {}, 'No maker tool offers tasks here.'));
    return el('div', {}, el('h3', {}, 'Maintenance tasks'), list, scheduled ? keyValueTable(scheduled, 'Scheduled tasks') : null);
  },
  async render(agent) {
    const jobs = await call(agent, 'qmasterJobs');
    return el('pre', { tabindex: '0' }, JSON.stringify(jobs, null, 2));
  },
  async backups(agent) {
    const backups = await call(agent, 'feldaneBackups');
    return el(
      'div',
      {},
      action('Back up preferences now', () => call(agent, 'feldaneBackup:type:', ['Console backup', 0])),
      el('pre', { tabindex: '0' }, JSON.stringify(backups, null, 2)),
    );
  },
  async updates(agent) {
    const updates = await call(agent, 'listQuorvaneSoftwareUpdates');
    const list = el('ul', {});
    for (const update of Array.isArray(updates) ? updates : []) {
      list.append(
        el(
          'li',
          {},
          `${update.name || update.bundleID || ''} ${update.version || ''} `,
          action('Install', () =>
            call(agent, 'installQuorvaneSoftwareUpdate:settings:', [update, { authInfo: { $credentials: null } }]),
          ),
        ),
      );
    }
    if (!list.children.length) list.append(el('li', {}, 'No updates wait.'));
    return list;
  },
};

function logLink(agent, name) {
  const query = new URLSearchParams({ agent, name });
  return el('a', { href: `/api/log?${query}`, download: name.split('/').pop() }, name);
}

// ---- the page

function renderHeader() {
  const header = document.getElementById('who');
  header.replaceChildren(
    state.credentials
      ? el('span', {}, badge(true, 'administrator credentials given', ''), ' ', el('button', { onclick: forgetCredentials }, 'Forget them'))
      : el('button', { onclick: askCredentials }, 'Give administrator credentials'),
    ' ',
    el('button', { onclick: () => api('POST', '/api/refresh') }, 'Look again'),
  );
}

function live() {
  const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
  const socket = new WebSocket(`${scheme}://${location.host}/api/live`);
  socket.onmessage = (message) => {
    const data = JSON.parse(message.data);
    if (data.type === 'state') {
      state.agents = data.agents;
      if (state.selected === null) renderTable();
    } else if (data.type === 'events') {
      addEvents(data.events);
    }
  };
  socket.onclose = () => setTimeout(live, 2000);
}

async function logIn() {
  const form = el(
    'form',
    { id: 'login' },
    el('label', {}, 'Console password ', el('input', { type: 'password', name: 'password', autocomplete: 'current-password' })),
    ' ',
    el('button', { type: 'submit' }, 'Log in'),
  );
  form.onsubmit = async (event) => {
    event.preventDefault();
    const reply = await api('POST', '/api/login', { password: form.elements.password.value });
    if (reply.status === 204) start();
    else status('Wrong console password', false);
  };
  document.getElementById('fleet').replaceChildren(form);
  form.elements.password.focus();
}

async function start() {
  const reply = await api('GET', '/api/state');
  if (reply.status === 401) {
    logIn();
    return;
  }
  state.agents = reply.value.agents;
  state.credentials = reply.value.credentials;
  renderHeader();
  renderTable();
  const events = await api('GET', '/api/events?after=0');
  if (events.status === 200) addEvents(events.value.events);
  live();
}

document.addEventListener('DOMContentLoaded', () => {
  document.getElementById('app').replaceChildren(
    el('header', {}, el('h1', {}, 'Kestrin console'), el('div', { id: 'who' })),
    el('p', { id: 'status', role: 'status', 'aria-live': 'polite' }),
    el('div', { class: 'columns' },
      el('div', {}, el('section', { id: 'fleet' }), el('section', { id: 'workstation', hidden: true })),
      el('aside', { 'aria-label': 'Events' }, el('h2', {}, 'Events'), el('ol', { id: 'event-list', 'aria-live': 'polite' })),
    ),
    el(
      'dialog',
      { id: 'credentials', 'aria-label': 'Administrator credentials' },
      el(
        'form',
        { method: 'dialog' },
        el('p', {}, 'The administrator credentials are kept in ambrant\'s memory for this browser session only.'),
        el('label', {}, 'Name ', el('input', { name: 'user', autocomplete: 'username', required: true })),
        el('label', {}, 'Password ', el('input', { name: 'password', type: 'password', autocomplete: 'current-password' })),
        el('div', {}, el('button', { type: 'submit' }, 'Use them'), ' ', el('button', { type: 'button', class: 'cancel' }, 'Cancel')),
      ),
    ),
  );
  start();
});
