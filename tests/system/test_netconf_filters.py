"""Filters of <get> and <get-config>, on two ports in the loop state."""

import pytest
from lab import APP_DB, p_app, wait_for
from ncclient.xml_ import to_ele
from netconf_lab import BASE, LOOP_DETECT, MODEL, refusal, running_front, set_policy


def entries(front):
    return len(front.lab.database(APP_DB).keys("p_app.lda_loop_entry/*"))


@pytest.fixture(scope="module")
def front():
    with running_front() as the_front:
        yield the_front


@pytest.fixture(scope="module")
def looped(front):
    """A session under policy 1, with two ports in the loop state."""
    with front.connect() as session:
        set_policy(session, 1)
        for port in (1, 3):
            front.lab.report_loop(port, is_loop=1)
        wait_for(lambda: entries(front) == 2, 10, "two entries are published")
        yield session


def found(reply):
    """The names in the model's container, with their values, in order."""
    container = reply.data_ele.find(f"{{{MODEL}}}loop-detect")
    if container is None:
        return None
    return [(node.tag.split("}")[1], node.text) for node in container.iter()
            if len(node) == 0 and node is not container]


PORT_1 = [("name", "swp1"), ("policy", "0"), ("src-port", "true")]
PORT_3 = [("name", "swp3"), ("policy", "0"), ("src-port", "true")]


@pytest.mark.parametrize("content, expected", [
    ("<loop-policy/>", [("loop-policy", "1")]),
    ("<looped-port/>", PORT_1 + PORT_3),
    ("<looped-port><name>swp3</name></looped-port>", PORT_3),
    ("<looped-port><name>swp3</name><src-port/></looped-port>", [("name", "swp3"), ("src-port", "true")]),
    ("<looped-port><src-port/></looped-port>",
     [("name", "swp1"), ("src-port", "true"), ("name", "swp3"), ("src-port", "true")]),
    ("<looped-port><name>swp2</name></looped-port>", None),
    ("<loop-policy>2</loop-policy>", None),
    ("<loop-policy>1</loop-policy><looped-port><name>swp1</name></looped-port>",
     [("loop-policy", "1")] + PORT_1),
    ("<nothing/>", None),
    ("", [("loop-policy", "1")] + PORT_1 + PORT_3),
])
def test_subtree_filter_selects(looped, content, expected):
    reply = looped.get(filter=("subtree", f'<loop-detect xmlns="{MODEL}">{content}</loop-detect>'))
    assert found(reply) == expected
    assert len(reply.data_ele) == (0 if expected is None else 1)


@pytest.mark.parametrize("select, expected", [
    ("/m:loop-detect", [("loop-policy", "1")] + PORT_1 + PORT_3),
    ("/m:loop-detect/m:looped-port[m:name='swp3']", PORT_3),
    ("//m:src-port[../m:name='swp1']", [("name", "swp1"), ("src-port", "true")]),
    ("/m:loop-detect/m:loop-policy[. > 1]", None),
    ("/m:loop-detect/m:loop-policy | //m:looped-port[1]", [("loop-policy", "1")] + PORT_1),
])
def test_xpath_filter_selects(looped, select, expected):
    reply = looped.get(filter=("xpath", ({"m": MODEL}, select)))
    assert found(reply) == expected


def test_configuration_has_no_state(looped):
    assert found(looped.get_config("running")) == [("loop-policy", "1")]
    assert found(looped.get_config("running", filter=("subtree", LOOP_DETECT))) == [("loop-policy", "1")]


def test_looped_port_outside_the_model_is_omitted(front, looped):
    database = front.lab.database(APP_DB)
    records = {"out of range": ("swp2", 7), "quotes": ("it's \"odd\"", 1), "again": ("swp1", 0)}
    for key, (name, policy) in records.items():
        record = p_app.lda_loop_entry(policy=policy)
        record.index.name = name
        database.set(f"p_app.lda_loop_entry/name={key}", record.SerializeToString())
    try:
        reply = looped.get(filter=("subtree", f'<loop-detect xmlns="{MODEL}"><looped-port/></loop-detect>'))
        assert [value for name, value in found(reply) if name == "name"] == ["swp1", "swp3"]
    finally:
        for key in records:
            database.delete(f"p_app.lda_loop_entry/name={key}")
    assert front.log().count("a looped port is left out: ") == 3


def test_unusable_filters_are_refused(looped):
    refusal(looped.get, filter=("xpath", "///["))
    assert refusal(looped.get, filter=("xpath", "1 + 1")).tag == "invalid-value"
    set_policy(looped, 0)  # no data at all
    assert refusal(looped.get_config, "running", filter=("xpath", "1 + 1")).tag == "invalid-value"
    bare = f'<get xmlns="{BASE}"><filter type="xpath"/></get>'
    assert refusal(looped.dispatch, to_ele(bare)).tag == "missing-attribute"
    empty = looped.dispatch(to_ele(f'<get xmlns="{BASE}"><filter type="subtree"/></get>'))
    assert "<data/>" in empty.xml
