# SPDX-License-Identifier: Apache-2.0
"""The software bill of materials of a build: sbom_test.py BUILD VERSION READELF."""
import copy
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import jsonschema

HERE = pathlib.Path(__file__).resolve().parent
SCRIPT = HERE.parents[1] / "cmake/sbom.cmake"
BUILD, VERSION, READELF = pathlib.Path(sys.argv[1]), *sys.argv[2:4]
BINARIES = {"runeld": "bin/runeld", "runelctl": "bin/runelctl", "runelgw": "bin/runelgw", "librunel.a": "client/librunel.a",
            f"librunel.so.{VERSION}": f"client/librunel.so.{VERSION}"}
VALIDATOR = jsonschema.Draft7Validator(json.loads((HERE / "spdx-2.3-schema.json").read_text()))
MISSING = object()

# Where a document is changed, the new value, and a part of the validator's message.
WRONG = [
    (["spdxVersion"], "SPDX-2.2", "'SPDX-2.3' was expected"),
    (["dataLicense"], MISSING, "'dataLicense' is a required property"),
    (["documentNamespace"], "urn:uuid:1#2", "does not match"),
    (["creationInfo", "created"], "2026-11-23", "does not match"),
    (["creationInfo", "created"], MISSING, "'created' is a required property"),
    (["creationInfo", "creators"], [], "is too short"),
    (["creationInfo", "creators", 0], "somebody", "does not match"),
    (["packages", 0, "name"], MISSING, "'name' is a required property"),
    (["packages", 0, "downloadLocation"], MISSING, "'downloadLocation' is a required property"),
    (["packages", 0, "packageVerificationCode"], MISSING, "'packageVerificationCode' is a required property"),
    (["packages", 0, "SPDXID"], "SPDXRef-a+b", "does not match"),
    (["packages", 0, "version"], "1", "Additional properties are not allowed"),
    (["packages", 0, "licenseDeclared"], "Apache 2.0", "does not match"),
    (["packages", 0, "primaryPackagePurpose"], "DAEMON", "is not one of"),
    (["packages", 0, "filesAnalyzed"], "yes", "is not of type 'boolean'"),
    (["packages", -1, "licenseInfoFromFiles"], ["MIT"], "False schema"),
    (["files", 0, "checksums"], [], "is too short"),
    (["files", 0, "checksums", 0, "algorithm"], "SHA256", "does not match"),
    (["files", 0, "checksums", 0, "algorithm"], "sha1", "is not one of"),
    (["files", 0, "checksums", 0, "checksumValue"], "ABCDEF", "does not match"),
    (["files", 0, "fileName"], "/usr/sbin/runeld", "does not match"),
    (["relationships", 0, "relationshipType"], "LINKS", "is not one of"),
    (["relationships", 0, "relatedSpdxElement"], MISSING, "is a required property"),
    (["notes"], "", "Additional properties are not allowed"),
]


def needed(path):
    """The names of the shared objects that the file @p path needs, from the program that is not CMake."""
    done = subprocess.run([READELF, "--wide", "--dynamic", path], check=True, stdout=subprocess.PIPE, text=True)
    return re.findall(r"\(NEEDED\).*\[(.*)\]", done.stdout)


class SbomTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.document = json.loads((BUILD / "runeld.spdx.json").read_text())
        cls.packages = {package["name"]: package for package in cls.document["packages"]}
        cls.files = {file["fileName"].removeprefix("./"): file for file in cls.document["files"]}

    def related(self, element, kind):
        """The elements to which @p element has the relationship @p kind, with the comments."""
        return [(each["relatedSpdxElement"], each.get("comment")) for each in self.document["relationships"]
                if (each["spdxElementId"], each["relationshipType"]) == (element, kind)]

    def write(self, script=SCRIPT, **environment):
        """What the script writes now."""
        with tempfile.TemporaryDirectory() as directory:
            document = os.path.join(directory, "document")
            subprocess.run(["cmake", f"-DSETTINGS={BUILD}/sbom/settings.cmake", f"-DDOCUMENT={document}", "-P",
                            script], env={**os.environ, **environment}, check=True)
            with open(document, encoding="utf-8") as file:
                return file.read()

    def test_the_document_has_the_form_of_spdx(self):
        VALIDATOR.check_schema(VALIDATOR.schema)
        self.assertEqual([error.message for error in VALIDATOR.iter_errors(self.document)], [])

    def test_wrong_documents_are_refused(self):
        for path, value, message in WRONG:
            with self.subTest(path=path, value=value):
                wrong = copy.deepcopy(self.document)
                place = wrong
                for step in path[:-1]:
                    place = place[step]
                if value is MISSING:
                    del place[path[-1]]
                else:
                    place[path[-1]] = value
                messages = [error.message for error in VALIDATOR.iter_errors(wrong)]
                self.assertTrue([each for each in messages if message in each], messages)

    def test_each_identifier_is_unique_and_each_related_element_exists(self):
        elements = [each["SPDXID"] for part in ("packages", "files") for each in self.document[part]]
        self.assertEqual(len(elements), len(set(elements)))
        for each in self.document["relationships"]:
            self.assertIn(each["spdxElementId"], [*elements, "SPDXRef-DOCUMENT"])
            self.assertIn(each["relatedSpdxElement"], elements)

    def test_the_products_are_described_with_their_version(self):
        described = [element for element, _ in self.related("SPDXRef-DOCUMENT", "DESCRIBES")]
        products = [package for package in self.packages.values() if package["filesAnalyzed"]]
        self.assertEqual(sorted(package["name"] for package in products), ["librunel", "runelctl", "runeld", "runelgw"])
        self.assertEqual(sorted(described), sorted(package["SPDXID"] for package in products))
        self.assertEqual({package["versionInfo"] for package in products}, {VERSION})

    def test_the_files_are_the_built_ones(self):
        self.assertEqual(sorted(self.files), sorted(BINARIES))
        for name, path in BINARIES.items():
            content = (BUILD / path).read_bytes()
            sums = {each["algorithm"]: each["checksumValue"] for each in self.files[name]["checksums"]}
            self.assertEqual(sums, {"SHA1": hashlib.sha1(content).hexdigest(),
                                    "SHA256": hashlib.sha256(content).hexdigest()}, name)

    def test_each_package_has_the_code_of_its_files(self):
        names = {file["SPDXID"]: name for name, file in self.files.items()}
        contained = 0
        for package in self.packages.values():
            files = [names[element] for element, _ in self.related(package["SPDXID"], "CONTAINS")]
            contained += len(files)
            self.assertEqual(bool(files), package["filesAnalyzed"], package["name"])
            if files:
                sums = sorted(hashlib.sha1((BUILD / BINARIES[name]).read_bytes()).hexdigest() for name in files)
                self.assertEqual(package["packageVerificationCode"]["packageVerificationCodeValue"],
                                 hashlib.sha1("".join(sums).encode()).hexdigest(), package["name"])
        self.assertEqual(contained, len(BINARIES))

    def test_each_needed_library_is_listed_with_its_licence_and_version(self):
        packages = {package["SPDXID"]: package for package in self.packages.values()}
        for name, path in BINARIES.items():
            linked = self.related(self.files[name]["SPDXID"], "DYNAMIC_LINK")
            self.assertEqual([soname for _, soname in linked], needed(BUILD / path), name)
            for element, soname in linked:
                self.assertRegex(packages[element]["versionInfo"], r"^[0-9]+(\.[0-9]+)*$", soname)
                self.assertNotEqual(packages[element]["licenseDeclared"], "NOASSERTION", soname)
        self.assertTrue(needed(BUILD / "bin/runelctl"))

    def test_runelctl_lists_what_it_contains_and_what_it_links(self):
        names = {package["SPDXID"]: package["name"] for package in self.packages.values()}
        element = self.files["runelctl"]["SPDXID"]
        contains = [names[each] for each, _ in self.related(element, "STATIC_LINK")]
        self.assertEqual(contains, ["librunel", "CLI11", "nlohmann-json", "toml++", "Boost"])
        links = {names[each]: soname for each, soname in self.related(element, "DYNAMIC_LINK")}
        self.assertLessEqual({"libedit": "libedit.so.2", "zlib": "libz.so.1", "bzip2": "libbz2.so.1.0",
                              "libstdc++": "libstdc++.so.6"}.items(), links.items())
        self.assertIn("OpenSSL", links)
        for library, header, pattern in (
                ("CLI11", "CLI/Version.hpp", r'CLI11_VERSION "(.*)"'),
                ("zlib", "zlib.h", r'ZLIB_VERSION "(.*)"')):
            text = pathlib.Path("/usr/include", header).read_text(encoding="utf-8")
            self.assertEqual(self.packages[library]["versionInfo"], re.search(pattern, text)[1])

    def test_runelgw_lists_what_it_contains_and_what_it_links(self):
        names = {package["SPDXID"]: package["name"] for package in self.packages.values()}
        element = self.files["runelgw"]["SPDXID"]
        contains = [names[each] for each, _ in self.related(element, "STATIC_LINK")]
        self.assertEqual(contains, ["librunel", "Boost", "CLI11", "nlohmann-json", "toml++"])
        links = {names[each] for each, _ in self.related(element, "DYNAMIC_LINK")}
        self.assertLessEqual({"OpenSSL", "SOCI", "SQLite", "prometheus-cpp", "libstdc++"}, links)
        for library, header, pattern in (
                ("SQLite", "sqlite3.h", r'SQLITE_VERSION +"(.*)"'),
                ("Boost", "boost/version.hpp", r'BOOST_LIB_VERSION "(.*)"')):
            text = pathlib.Path("/usr/include", header).read_text(encoding="utf-8")
            version = re.search(pattern, text)[1].replace("_", ".")
            self.assertTrue(self.packages[library]["versionInfo"].startswith(version), library)

    def test_the_document_is_the_same_in_other_surroundings_and_dated_by_the_sources(self):
        one = self.write(SOURCE_DATE_EPOCH="1700000000", TZ="UTC0", LC_ALL="C")
        other = self.write(SOURCE_DATE_EPOCH="1700000000", TZ="XYZ-5:45", LC_ALL="C.UTF-8")
        self.assertEqual(one, other)
        self.assertEqual(json.loads(one)["creationInfo"]["created"], "2023-11-14T22:13:20Z")
        self.assertNotIn(str(BUILD), one)

    def test_the_output_of_readelf_is_not_translated(self):
        with tempfile.TemporaryDirectory() as directory:
            readelf, settings = (os.path.join(directory, name) for name in ("readelf", "settings.cmake"))
            with open(readelf, "w", encoding="utf-8") as file:
                file.write(f'#!/bin/sh\n[ "$LC_ALL" = C ] && exec {READELF} "$@"\n')
            os.chmod(readelf, 0o755)
            text = (BUILD / "sbom/settings.cmake").read_text()
            with open(settings, "w", encoding="utf-8") as file:
                file.write(re.sub(r'set\(READELF ".*"\)', f'set(READELF "{readelf}")', text))
            subprocess.run(["cmake", f"-DSETTINGS={settings}", f"-DDOCUMENT={directory}/document", "-P", SCRIPT],
                           env={**os.environ, "LC_ALL": "fr_FR.UTF-8", "LANGUAGE": "fr"}, check=True)

    def test_without_a_variable_the_date_is_that_of_the_commit_or_of_the_release(self):
        environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
        with tempfile.TemporaryDirectory() as directory:
            sources, settings = pathlib.Path(directory), pathlib.Path(directory, "settings.cmake")
            settings.write_text(re.sub(r'set\(SOURCE_DIR ".*"\)', f'set(SOURCE_DIR "{directory}")',
                                       (BUILD / "sbom/settings.cmake").read_text()))
            (sources / "CMakeLists.txt").touch()
            os.utime(sources / "CMakeLists.txt", (1600000000, 1600000000))

            def created():
                subprocess.run(["cmake", f"-DSETTINGS={settings}", f"-DDOCUMENT={sources}/document", "-P", SCRIPT],
                               env=environment, check=True)
                return json.loads((sources / "document").read_text())["creationInfo"]["created"]

            self.assertEqual(created(), "2020-09-13T12:26:40Z")
            git = ["git", "-C", directory, "-c", "user.name=x", "-c", "user.email=x@x"]
            subprocess.run([*git, "init", "-q"], check=True)
            subprocess.run([*git, "commit", "-q", "--allow-empty", "-m", "x"], check=True,
                           env={**environment, "GIT_COMMITTER_DATE": "@1700000000 +0545"})
            self.assertEqual(created(), "2023-11-14T22:13:20Z")

    def test_a_library_that_the_script_does_not_know_is_listed_by_its_name(self):
        with tempfile.TemporaryDirectory() as directory:
            script = pathlib.Path(directory, "sbom.cmake")
            script.write_text(SCRIPT.read_text().replace("^libedit", "^otherwise"))
            document = json.loads(self.write(script))
        self.assertEqual([error.message for error in VALIDATOR.iter_errors(document)], [])
        package = next(each for each in document["packages"] if each["name"] == "libedit.so.2")
        self.assertEqual((package["licenseDeclared"], package.get("versionInfo")), ("NOASSERTION", None))

    def test_what_a_program_needs_and_does_not_link_is_inside_of_it(self):
        with tempfile.TemporaryDirectory() as directory:
            source, program = os.path.join(directory, "source.cc"), os.path.join(directory, "static")
            with open(source, "w", encoding="utf-8") as file:
                file.write("int main() {}\n")
            subprocess.run(["c++", "-static", "-o", program, source], check=True)
            text = (BUILD / "sbom/settings.cmake").read_text()
            settings = os.path.join(directory, "settings.cmake")
            with open(settings, "w", encoding="utf-8") as file:
                file.write(re.sub(r'set\(FILES ".*"\)', f'set(FILES "runeld|{program}|")', text))
            document = os.path.join(directory, "document")
            subprocess.run(["cmake", f"-DSETTINGS={settings}", f"-DDOCUMENT={document}", "-P", SCRIPT], check=True)
            with open(document, encoding="utf-8") as file:
                relationships = json.load(file)["relationships"]
        self.assertEqual([each["relatedSpdxElement"] for each in relationships
                          if each["relationshipType"] == "STATIC_LINK"],
                         ["SPDXRef-Package-glibc", "SPDXRef-Package-libstdcpp", "SPDXRef-Package-libgcc"])
        self.assertNotIn("DYNAMIC_LINK", [each["relationshipType"] for each in relationships])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
