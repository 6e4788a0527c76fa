#!/usr/bin/python3 -IB
# SPDX-License-Identifier: Apache-2.0
"""Compares the document of the API with the routes of the program and the answers of its tests.

    check_answers.py OPENAPI DIRECTORY

DIRECTORY has what the tests wrote: "routes" and "answers" with a JSON object in each line, and "document" as
the program serves it. Checks that

- the document has exactly the routes, with their ids, roles, parameters and bodies,
- each answer has a status, a type and a body that the document allows,
- each operation has at least one successful answer among them.

Exit status: 0 without findings, 1 with.
"""
import json
import sys
import warnings
from pathlib import Path

warnings.simplefilter("ignore", DeprecationWarning)  # new versions want another library for references
import jsonschema  # noqa: E402

# An upgrade has no answer that these tests see.
WITHOUT_ANSWER = {"attach"}


def operations(document):
    for path, methods in document["paths"].items():
        for method, operation in methods.items():
            yield method.upper(), path, operation


def of_document(method, path, operation):
    parameters = [p["name"] for p in operation.get("parameters", []) if p["in"] == "query"]
    return {"method": method, "path": path, "operationId": operation["operationId"],
            "role": operation["x-role"], "parameters": sorted(parameters), "body": "requestBody" in operation}


def check_routes(document, routes):
    there = {(r["method"], r["path"]): {**r, "parameters": sorted(r["parameters"])} for r in routes}
    here = {(m, p): of_document(m, p, o) for m, p, o in operations(document)}
    for key in sorted(there.keys() | here.keys()):
        if there.get(key) != here.get(key):
            yield f"{key[0]} {key[1]}: the program has {there.get(key)}, the document {here.get(key)}"
    ids = [o["operationId"] for _, _, o in operations(document)]
    for name in {name for name in ids if ids.count(name) > 1}:
        yield f"{name}: several operations have this id"


class Schemas:
    """Validators of the document's schemas."""

    def __init__(self, document):
        self.document = document
        self.resolver = jsonschema.RefResolver("", document)

    def check_all(self):
        for name, schema in self.document["components"]["schemas"].items():
            try:
                jsonschema.Draft202012Validator.check_schema(schema)
            except jsonschema.SchemaError as error:
                yield f"schema {name}: {error.message}"

    def findings(self, schema, body):
        validator = jsonschema.Draft202012Validator(schema, resolver=self.resolver)
        return [f"{error.json_path}: {error.message[:300]}" for error in validator.iter_errors(body)]


def response_for(document, operation, status):
    responses = operation["responses"] if operation else {}
    response = responses.get(str(status))
    if response is None and status >= 400:
        response = document["components"]["responses"]["Problem"]
    return response


def check_answer(document, schemas, operation, answer):
    response = response_for(document, operation, answer["status"])
    if response is None:
        return ["the document does not have this status"]
    content = response.get("content")
    kind = answer["type"].split(";")[0].strip()
    if content is None:
        return [] if not answer["body"] else ["the document has no body for it"]
    if kind not in content:
        return [f"the document has {sorted(content)}, and not {kind!r}"]
    if kind == "text/plain":
        return []
    return schemas.findings(content[kind]["schema"], json.loads(answer["body"]))


def check_answers(document, answers):
    schemas = Schemas(document)
    yield from schemas.check_all()
    by_id = {o["operationId"]: o for _, _, o in operations(document)}
    validated = set()
    for answer in answers:
        name = answer["operationId"]
        problems = check_answer(document, schemas, by_id.get(name), answer)
        for problem in problems:
            yield f"{name or answer['request']}: {answer['status']}: {problem}"
        if not problems and answer["status"] < 400:
            validated.add(name)
    for name in sorted(by_id.keys() - validated - WITHOUT_ANSWER):
        yield f"{name}: no test has a successful answer"


def read_lines(path):
    with open(path, encoding="utf-8") as lines:
        return [json.loads(line) for line in lines]


def main():
    text = Path(sys.argv[1]).read_text(encoding="utf-8")
    directory = Path(sys.argv[2])
    document = json.loads(text)
    answers = read_lines(directory / "answers")
    findings = list(check_routes(document, read_lines(directory / "routes")))
    if (directory / "document").read_text(encoding="utf-8") != text:
        findings.append("the program serves another document")
    findings += check_answers(document, answers)
    for finding in sorted(set(findings)):
        print(finding)
    print(f"{len(answers)} answers, {len(findings)} findings")
    return 1 if findings or not answers else 0


if __name__ == "__main__":
    sys.exit(main())
