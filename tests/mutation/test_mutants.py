"""The faults found in a source, and the list of survivors: test_mutants.py ROOT"""

import sys
import unittest
from pathlib import Path

from mutants import mutants_of
from workshop import Workshop, programs_of


def faults_in(source):
    return {(mutant.kind, mutant.after) for mutant in mutants_of("file.cpp", source)}


class Mutants(unittest.TestCase):
    def test_statements_are_removed_and_exchanged_within_their_block(self):
        self.assertEqual(
            faults_in("void F() {\n    First();\n    Second();\n}\nvoid G() {\n    Third();\n}\n"),
            {("statement removed", ";"), ("order", "Second(); First();")})

    def test_conditions_comparisons_and_constants_are_changed(self):
        self.assertEqual(
            faults_in("bool F(int a) {\n    if (a < 7 && Good(a)) {\n    }\n}\n"),
            {("condition", "if (!(a < 7 && Good(a))) {"),
             ("condition", "if (a < 7 || Good(a)) {"),
             ("comparison", "if (a <= 7 && Good(a)) {"),
             ("comparison", "if (a >= 7 && Good(a)) {"),
             ("constant", "if (a < 8 && Good(a)) {"),
             ("constant", "if (a < 6 && Good(a)) {")})

    def test_sums_results_and_atomic_operations_are_changed(self):
        self.assertEqual(
            faults_in("int F() {\n    n.fetch_add(a);\n    return a + b;\n}\n"),
            {("atomic", "n.fetch_sub(a);"), ("atomic", "n.store(a);"),
             ("statement removed", ";"), ("arithmetic", "return a - b;"),
             ("boundary", "return a + 1 + b;"), ("return value", "return {};")})

    def test_one_letter_of_a_text_is_changed(self):
        self.assertEqual(faults_in('const char* text = "abc";\n'),
                         {("text", 'const char* text = "axc";')})

    def test_what_is_no_code_stays(self):
        self.assertEqual(
            faults_in('#include "a1.h"\n// a < 1\n/* b + 2\n */\nstatic_assert(1 + 1 == 2);\n'
                      '[[nodiscard]] bool F(const std::vector<int>& a) const;\n'), set())

    def test_an_applied_fault_changes_its_place_only(self):
        source = "int F() {\n    return a + b;\n}\n"
        for mutant in mutants_of("file.cpp", source):
            self.assertIn(mutant.after, mutant.apply(source))
            self.assertEqual(mutant.line, 2)

    def test_a_fault_keeps_its_identity_when_lines_come_above_it(self):
        source = "int F() {\n    return a + b;\n}\n"
        self.assertEqual([mutant.identity for mutant in mutants_of("file.cpp", source)],
                         [mutant.identity for mutant in mutants_of("file.cpp", "//\n" + source)])


class Library(unittest.TestCase):
    def test_every_file_has_programs_that_test_it(self):
        for path in Workshop.sources_of(root):
            self.assertTrue(programs_of(path), path)

    def test_every_listed_survivor_is_a_fault_of_these_sources_and_has_a_reason(self):
        identities = {mutant.identity for path in Workshop.sources_of(root)
                      for mutant in mutants_of(path, (root / path).read_text())}
        for line in (root / "tests/mutation/survivors.txt").read_text().splitlines():
            if not line.startswith("#"):
                fields = line.split(" | ")
                self.assertEqual(len(fields), 4, line)
                self.assertIn(fields[0], identities, line)


if __name__ == "__main__":
    root = Path(sys.argv[1])
    unittest.main(argv=sys.argv[:1])
