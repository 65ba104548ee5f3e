# The modules against a fake sylvane-service that prints recorded answers:
# which invocations each task makes, what it sends, and how it reads the
# answers, failures included.
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import importlib
import json
import os

import pytest
from ansible.module_utils import basic

FAKE = os.path.join(os.path.dirname(__file__), '..', '..', 'fake-sylvane-service')
KEY = 'K' * 76


def line(**fields):
    return json.dumps(dict(version=1, **fields))


def plan(*changes, pending=True):
    return (4 if pending else 0, line(ok=True, pending=pending, changes=list(changes), summary={}))


def change(action, before=None, after=None, service='web', obj='service'):
    c = dict(object=obj, action=action, before=before, after=after)
    if obj == 'service':
        c['service'] = service
    return c


APPLIED = (0, line(object='service', service='web', action='create', state='done') + '\n'
           + line(ok=True, changed=True, summary={'create': 1}))
OLD = {'target': '127.0.0.1:8080', 'virtual_port': 80, 'enabled': False, 'status': 'disconnected'}
NEW = {'target': '127.0.0.1:9090', 'virtual_port': 80, 'enabled': True}
LISTED = (0, line(ok=True, services=[{'service': 'web', 'status': 'connected', 'ip_address': '127.0.0.1',
                                      'port': 8080, 'virtual_port': 80}]))
WEB = dict(name='web', target='127.0.0.1:8080')


def run(tmp_path, monkeypatch, module, params, answers, check=False, diff=False):
    """Runs a module's main() against the fake tool; returns (result, calls)
    where each call is (arguments, standard input, SYLVANE_API_KEY)."""
    for n, (rc, out) in enumerate(answers):
        (tmp_path / ('answer.%d.rc' % n)).write_text(str(rc))
        (tmp_path / ('answer.%d.out' % n)).write_text(out + '\n')
    monkeypatch.setenv('FAKE_SYLVANE_DIR', str(tmp_path))
    args = dict(params, executable=os.path.abspath(FAKE), _ansible_check_mode=check, _ansible_diff=diff)
    monkeypatch.setattr(basic, '_ANSIBLE_ARGS', json.dumps({'ANSIBLE_MODULE_ARGS': args}).encode())
    mod = importlib.import_module('ansible_collections.sylvane.transfer_agent.plugins.modules.' + module)
    with pytest.raises(SystemExit):
        mod.main()
    result = json.loads(capture.readouterr().out)
    calls = []
    n = 0
    while (tmp_path / ('call.%d.args' % n)).exists():
        read = lambda suffix: (tmp_path / ('call.%d.%s' % (n, suffix))).read_text() \
            if (tmp_path / ('call.%d.%s' % (n, suffix))).exists() else None
        calls.append((read('args').split('\n')[1:-1], read('stdin'), read('key')))
        n += 1
    return result, calls


@pytest.fixture(autouse=True)
def _capture(capsys):
    global capture
    capture = capsys


# (id, module, params, answers, check, diff, expected result fields, expected arguments per call)
CASES = [
    ('create', 'service', dict(WEB, api_key=KEY), [plan(change('create', None, WEB)), APPLIED],
     False, False, dict(changed=True), [['--diff', '-'], ['--apply', '-']]),
    ('already there', 'service', WEB, [plan(change('unchanged', OLD, OLD), pending=False)],
     False, False, dict(changed=False, changes=[]), [['--diff', '-']]),
    ('other services left alone', 'service', WEB,
     [plan(change('not_managed', OLD, None, service='db'), change('unchanged', OLD, OLD), pending=False)],
     False, False, dict(changed=False), [['--diff', '-']]),
    ('diff: update then enable', 'service', dict(name='web', target='127.0.0.1:9090', state='enabled'),
     [plan(change('update', {'target': '127.0.0.1:8080'}, {'target': '127.0.0.1:9090'}),
           change('enable', dict(OLD, target='127.0.0.1:9090'), NEW))],
     True, True, dict(diff=dict(before={'target': '127.0.0.1:8080', 'virtual_port': 80, 'enabled': False},
                                after=NEW)), [['--diff', '-']]),
    ('diff: create', 'service', dict(WEB, state='disabled'), [plan(change('create', None, WEB))],
     True, True, dict(diff=dict(before={}, after={'target': '127.0.0.1:8080', 'enabled': False})),
     [['--diff', '-']]),
    ('key file and wait', 'service', dict(WEB, api_key_file='/root/key', wait=30),
     [plan(change('create', None, WEB)), APPLIED], False, False, dict(changed=True),
     [['--diff', '-'], ['--apply', '-', '--api-key-file', '/root/key', '--wait', '30']]),
    ('absent removes', 'service', dict(name='web', state='absent'), [LISTED, (0, line(ok=True, service='web'))],
     False, True, dict(changed=True, diff=dict(before={'target': '127.0.0.1:8080', 'virtual_port': 80,
                                                       'enabled': True}, after={})),
     [['-l'], ['-r', 'web']]),
    ('absent in check mode', 'service', dict(name='web', state='absent'), [LISTED], True, False,
     dict(changed=True), [['-l']]),
    ('absent already', 'service', dict(name='db', state='absent'), [LISTED], False, False,
     dict(changed=False), [['-l']]),
    ('refused key', 'service', dict(WEB, api_key=KEY),
     [plan(change('create', None, WEB)),
      (1, line(object='service', service='web', action='create', state='failed', reason='Invalid API key.')
       + '\n' + line(ok=False, error='refused', message="Could not add service 'web'.", service='web',
                     reason='Invalid API key.', changed=False, summary={}, not_tried=[]))],
     False, False, dict(failed=True, error='refused', reason='Invalid API key.', changed=False,
                        msg="Could not add service 'web'.", rc=1), [['--diff', '-'], ['--apply', '-']]),
    ('unreachable', 'info', {}, [(3, line(ok=False, error='unreachable', message='Transfer Agent process did '
                                          'not respond in expected time. Please retry.'))],
     False, False, dict(failed=True, error='unreachable', rc=3), [['-l']]),
    ('not JSON', 'info', {}, [(0, 'Service list:')], False, False, dict(failed=True, rc=0), [['-l']]),
    ('pending is not success for other commands', 'info', {}, [(4, line(ok=True, services=[]))],
     False, False, dict(failed=True, rc=4), [['-l']]),
    ('proxy diff: types compared in capitals', 'proxy', dict(address='10.0.0.1:3128', type='Socks5'),
     [plan(change('enable', {'address': '10.0.0.1:3128', 'type': 'SOCKS5', 'enabled': False},
                  {'address': '10.0.0.1:3128', 'type': 'Socks5', 'enabled': True}, obj='proxy'),
           change('unchanged', OLD, OLD)), (0, line(ok=True, changed=True, summary={}))],
     False, True, dict(changed=True, diff=dict(
         before={'address': '10.0.0.1:3128', 'type': 'SOCKS5', 'enabled': False},
         after={'address': '10.0.0.1:3128', 'type': 'SOCKS5', 'enabled': True})),
     [['--diff', '-'], ['--apply', '-']]),
    ('apply inline with prune', 'apply', dict(services={}, prune=True, api_key=KEY,
                                              proxy=dict(address='10.0.0.1:3128', type='HTTP')),
     [plan(change('remove', OLD, None)), (0, line(ok=True, changed=True, summary={'remove': 1}))],
     False, True, dict(changed=True, summary={'remove': 1},
                       diff=dict(before={'services': {'web': {'target': '127.0.0.1:8080', 'virtual_port': 80,
                                                              'enabled': False}}},
                                 after={'services': {}})),
     [['--diff', '-', '--prune'], ['--apply', '-', '--prune']]),
    ('apply a file, a step fails', 'apply', dict(src='/etc/sylvane/services.yml'),
     [plan(change('create', None, WEB), change('enable', None, NEW)),
      (1, line(object='service', service='web', action='create', state='done') + '\n'
       + line(ok=False, error='failed', message='x', service='web', changed=True, summary={'create': 1},
              not_tried=[{'object': 'service', 'service': 'web', 'action': 'enable'}]))],
     False, False, dict(failed=True, changed=True, not_tried=[{'object': 'service', 'service': 'web',
                                                                'action': 'enable'}]),
     [['--diff', '/etc/sylvane/services.yml'], ['--apply', '/etc/sylvane/services.yml']]),
    ('info', 'info', {}, [LISTED, (0, line(ok=True, proxy={'type': 'HTTP', 'enabled': False}))],
     False, False, dict(changed=False, proxy={'type': 'HTTP', 'enabled': False},
                        services={'web': json.loads(LISTED[1])['services'][0]}), [['-l'], ['-g']]),
]


@pytest.mark.parametrize('module,params,answers,check,diff,expected,arguments',
                         [c[1:] for c in CASES], ids=[c[0] for c in CASES])
def test_invocations_and_results(tmp_path, monkeypatch, module, params, answers, check, diff, expected,
                                 arguments):
    result, calls = run(tmp_path, monkeypatch, module, params, answers, check, diff)
    assert {k: result.get(k) for k in expected} == expected
    assert [args for args, dummy, dummy in calls] == arguments
    for args, stdin, key in calls:
        assert KEY not in ' '.join(args) and KEY not in (stdin or '')
        assert key == (KEY if args[0] == '--apply' and params.get('api_key') else '')
        assert (stdin is not None) == ('-' in args)
    assert KEY not in json.dumps(result)


# What a one-service task sends: the document the tool plans and applies.
@pytest.mark.parametrize('params,entry', [
    (WEB, {'target': '127.0.0.1:8080'}),
    (dict(WEB, virtual_port=80, clear_services=['a.example'], state='enabled'),
     {'target': '127.0.0.1:8080', 'virtual_port': 80, 'clear_services': ['a.example'], 'enabled': True}),
    (dict(WEB, state='disabled'), {'target': '127.0.0.1:8080', 'enabled': False}),
])
def test_service_document(tmp_path, monkeypatch, params, entry):
    dummy, calls = run(tmp_path, monkeypatch, 'service', params, [plan(pending=False)], check=True)
    assert json.loads(calls[0][1]) == {'version': 1, 'services': {'web': entry}}


def test_apply_document_drops_unset_proxy_fields(tmp_path, monkeypatch):
    params = dict(services={'web': {'target': '127.0.0.1:8080'}}, proxy=dict(address='10.0.0.1:3128', type='HTTP'))
    dummy, calls = run(tmp_path, monkeypatch, 'apply', params, [plan(pending=False)])
    assert json.loads(calls[0][1]) == {'version': 1, 'services': params['services'],
                                       'proxy': {'address': '10.0.0.1:3128', 'type': 'HTTP'}}


# Argument handling refused before the tool is run.
@pytest.mark.parametrize('module,params,words', [
    ('service', dict(WEB, api_key=KEY, api_key_file='/k'), 'mutually exclusive'),
    ('service', dict(name='web', state='enabled'), 'target'),
    ('apply', {}, 'one of the following'),
    ('apply', dict(src='/x', services={}), 'mutually exclusive'),
    ('proxy', dict(address='10.0.0.1:3128', type='SOCKS'), 'type'),
])
def test_bad_arguments(tmp_path, monkeypatch, module, params, words):
    result, calls = run(tmp_path, monkeypatch, module, params, [])
    assert result['failed'] and words in result['msg'] and calls == []
