"""The check of the list of statements, on small trees with one fault each."""
import pytest

import check_statements

DOCUMENT = """\
# What to know

It works. So it `does. Yes`, and
no more than that.

## Ids

- An id that is `.` or `..` is dropped. Send
  letters.

| Pause | Length |
|---|---|
| between passes | 3 s |
| after each report | 2 s. It is short |
"""
LIST = """\
# Shown by

A word before the table. It is no row.

# What to know

| statement | shown by |
|---|---|
| It works. | Pass.Works |
| So it | `test_jobs.test_runs`, Store.Keeps |

## Ids

| statement | shown by |
|---|---|
| An id that is | sweep.a script that fails |
| Send letters | - advice |
| between passes | Rows.Pass |
| after each report \\| 2 s | Pass.Works |
"""
SOURCES = {
    "tests/unit/a_test.cpp": 'TEST_F(Pass, Works) {\n}\nTEST(Store,\n     Keeps) {}\nTEST_P(Rows, Pass) {}\n'
                             '// TEST(Gone, Away) {}\n/*\nTEST(Gone, Too) {}\n*/\nTEST(Off, DISABLED_One) {}\n',
    "tests/sweep/job_scenarios.cpp": '{"a script that fails", {script_job(5)}},\n',
    "tests/system/test_jobs.py": "def test_runs(router):\n    pass\n# def test_gone(router):\n",
}


@pytest.fixture
def faults(tmp_path):
    def of(document=DOCUMENT, shown=LIST):
        for name, text in {**SOURCES, "docs/behaviour.md": document, "docs/behaviour-tests.md": shown}.items():
            path = tmp_path / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return list(check_statements.faults(tmp_path))
    return of


def test_a_whole_list_has_no_fault(faults):
    assert faults() == []


def test_sentences_bullets_and_rows_are_statements():
    assert list(check_statements.statements(DOCUMENT)) == [
        ("# What to know", "It works."),
        ("# What to know", "So it `does. Yes`, and no more than that."),
        ("## Ids", "An id that is `.` or `..` is dropped."),
        ("## Ids", "Send letters."),
        ("## Ids", "between passes | 3 s"),
        ("## Ids", "after each report | 2 s. It is short"),
    ]


@pytest.mark.parametrize("line, missing", [
    ("| It works. | Pass.Works |\n", "It works."),
    ("| Send letters | - advice |\n", "Send letters."),
    ("| between passes | Rows.Pass |\n", "between passes | 3 s"),
])
def test_a_statement_that_is_not_listed_fails(faults, line, missing):
    (fault,) = faults(shown=LIST.replace(line, ""))
    assert "not listed" in fault and missing in fault


def test_a_sentence_that_is_added_or_changed_fails(faults):
    (fault,) = faults(DOCUMENT.replace("It works.", "It works. It lasts for 3 years."))
    assert "not listed: 'It lasts for 3 years.'" in fault
    assert len(faults(DOCUMENT.replace("It works.", "It fails."))) == 2, "the sentence, and the row"


def test_a_statement_that_is_listed_twice_fails(faults):
    (fault,) = faults(shown=LIST.replace("| Send letters |", "| Send letters. | Pass.Works |\n| Send letters |"))
    assert "listed 2 times" in fault


@pytest.mark.parametrize("statement", ["It sleeps", "t works", "", "it works."])
def test_a_row_that_begins_no_statement_fails(faults, statement):
    (fault,) = faults(shown=LIST.replace("| So it |", f"| {statement} | Pass.Works |\n| So it |"))
    assert f"begins no statement: {statement!r}" in fault


def test_a_row_under_another_heading_begins_no_statement(faults):
    assert any("begins no statement: 'It works.'" in fault
               for fault in faults(shown=LIST + "| It works. | Pass.Works |\n"))


def test_a_row_that_begins_two_statements_fails(faults):
    found = faults(DOCUMENT.replace("It works.", "It works. It works twice."),
                   LIST.replace("| It works. |", "| It works |"))
    assert ["begins 2 statements: 'It works'" in fault for fault in found] == [True]


@pytest.mark.parametrize("name", ["Pass.Sleeps", "Gone.Away", "Gone.Too", "Off.DISABLED_One", "Off.One",
                                  "test_jobs.test_gone", "test_other.test_runs", "test_runs", "sweep.another"])
def test_a_test_that_does_not_exist_fails(faults, name):
    (fault,) = faults(shown=LIST.replace("Rows.Pass", name))
    assert f"names {name}, which is no test" in fault
    (fault,) = faults(shown=LIST.replace("Rows.Pass", f"Rows.Pass, {name}"))
    assert f"names {name}, which is no test" in fault


@pytest.mark.parametrize("shown_by, fault", [("", "names no test"), ("Pass.Works,", "names no test"),
                                             ("-", "gives no reason"), ("- ", "gives no reason")])
def test_a_row_that_names_nothing_fails(faults, shown_by, fault):
    (found,) = faults(shown=LIST.replace("Rows.Pass", shown_by))
    assert fault in found


def test_faults_are_printed_and_end_in_status_1(faults, tmp_path, capsys):
    faults()
    assert check_statements.main(tmp_path) == 0
    assert capsys.readouterr().out == ""
    faults(shown=LIST.replace("Rows.Pass", "Rows.Gone"))
    assert check_statements.main(tmp_path) == 1
    assert capsys.readouterr().out == ("docs/behaviour-tests.md: 'between passes' names Rows.Gone, "
                                       "which is no test\n")
