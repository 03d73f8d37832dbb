"""Error-tags of NETCONF requests that do not fit the protocol."""

import pytest
from lab import Lab
from netconf_lab import BASE, MODEL, Front

INLINE = f'<config><loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy></loop-detect></config>'
EDIT = f"<edit-config><target><running/></target>{INLINE}</edit-config>"
READ = "<get-config><source><running/></source></get-config>"


@pytest.fixture(scope="module")
def front():
    with Lab(store="redis", speed=60) as lab:
        lab.start_redis()
        lab.start_agent()
        with Front(lab) as the_front:
            yield the_front


@pytest.mark.parametrize("request_text, tag, info", [
    ("<no-such-operation/>", "operation-not-supported", ""),
    ('<a xmlns="urn:a"/>', "unknown-namespace", "<bad-element>a</bad-element><bad-namespace>urn:a</bad-namespace>"),
    ("", "missing-element", "<bad-element>rpcOperation</bad-element>"),
    ("<get/><get/>", "unknown-element", "<bad-element>get</bad-element>"),
    ("<get><unknown/></get>", "unknown-element", "<bad-element>unknown</bad-element>"),
    (f"<edit-config><target><candidate/></target>{INLINE}</edit-config>", "unknown-element",
     "<bad-element>candidate</bad-element>"),
    ('<get><filter type="regex"/></get>', "bad-attribute",
     "<bad-attribute>type</bad-attribute><bad-element>filter</bad-element>"),
    ('<get colour="red"/>', "unknown-attribute", "<bad-attribute>colour</bad-attribute><bad-element>get</bad-element>"),
    ("<kill-session><session-id>x</session-id></kill-session>", "invalid-value", ""),
])
def test_request_outside_the_protocol_is_refused_by_its_tag(front, request_text, tag, info):
    with front.raw() as raw:
        reply = raw.rpc(request_text)
        assert 'message-id="1"' in reply
        assert f"<error-type>protocol</error-type><error-tag>{tag}</error-tag>" in reply
        assert (f"<error-info>{info}</error-info>" in reply) if info else ("<error-info>" not in reply)
        assert "<data/>" in raw.rpc(READ)


def test_request_needs_a_message_id(front):
    text = f'<rpc xmlns="{BASE}">{EDIT}</rpc>'.encode()
    with front.raw() as raw:
        raw.send(b"\n#%d\n%s\n##\n" % (len(text), text))
        reply = raw.read()
        assert "<loop-policy>" not in raw.rpc(READ)
    assert reply.startswith(f'<rpc-reply xmlns="{BASE}"><rpc-error>')
    assert "<error-type>rpc</error-type><error-tag>missing-attribute</error-tag>" in reply
    assert ("<error-info><bad-attribute>message-id</bad-attribute><bad-element>rpc</bad-element></error-info>"
            in reply)


def test_request_that_is_too_long_is_too_big_and_ends_the_session(front):
    with front.raw() as raw:
        raw.request("<get>" + "x" * 70000 + "</get>")
        reply = raw.read()
        assert 'message-id="1"' in reply
        assert "<error-tag>too-big</error-tag>" in reply
        assert raw.process.wait(timeout=20) == 1
