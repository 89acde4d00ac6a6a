"""Puts single faults into the sources of a tree and tells which of them no test notices.

mutate.py WORK COUNT SEED JOBS: the tree is WORK/source; scripts/mutate makes it and calls this.
"""

import glob
import hashlib
import os
import random
import re
import subprocess
import sys
import time

FOLDERS = ('vos', 'tst')
COMMENTS_AND_TEXTS = re.compile(
    r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|^#[^\n]*(?:\\\n[^\n]*)*'
    r'|static_assert\([^;]*;|__asm__\([^)]*\)|__attribute__\(\([^;]*?\)\)|\boperator\W+'
    r'|template\s*<[^>]*>|\b\w+_cast<[^>]*>|\b(?:std::)?(?:atomic|numeric_limits|initializer_list)<[^>]*>',
    re.DOTALL | re.MULTILINE)
TOKENS = re.compile(
    r'(?<![\w.\'])(?:0[xX][0-9A-Fa-f\']+|\d[\d\']*)[uUlL]*(?![\w.\'])'
    r'|\b(?:true|false|continue|break)\b|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|\+=|-=|[<>+\-*/%!&|^]')
STATEMENT = re.compile(r'^( {4,})((?:[a-z_]\w*(?:::|\.|->)?)+\([^;{}]*\);)$', re.MULTILINE)

EXCHANGED = {
    '<<': ['>>'], '>>': ['<<'], '<=': ['<', '>'], '>=': ['>', '<'], '==': ['!='], '!=': ['=='],
    '&&': ['||'], '||': ['&&'], '++': ['--'], '--': ['++'], '+=': ['-='], '-=': ['+='],
    '<': ['<=', '>'], '>': ['>=', '<'], '+': ['-'], '-': ['+'], '/': ['*'], '%': ['/'],
    '|': ['&'], '^': ['|'], '!': [''], 'true': ['false'], 'false': ['true'],
    'continue': ['break'], 'break': ['continue'],
}


def blank_out(text):
    """The text with what holds no code replaced by blanks, so that places stay."""
    return COMMENTS_AND_TEXTS.sub(lambda found: re.sub(r'[^\n]', ' ', found.group()), text)


def is_binary(code, begin, end):
    """Whether a sign or a comparison stands between two values, as the formatter sets blanks."""
    return code[begin - 1:begin] == ' ' and code[end:end + 1] == ' '


def other_tokens(token, code, begin, end):
    if token[0].isdigit():
        digits = token.rstrip('uUlL').replace("'", '')
        is_octal = len(digits) > 1 and digits.isdigit() and digits[0] == '0'
        value = int(digits, 8 if is_octal else 0)
        suffix = token[len(token.rstrip('uUlL')):]
        return [str(other) + suffix for other in {value + 1, max(value - 1, 0)} - {value}]
    if token in ('<', '>', '+', '-', '/', '%', '|', '^', '<=', '>=', '<<', '>>'):
        return EXCHANGED[token] if is_binary(code, begin, end) else []
    if token == '&':
        return ['|'] if is_binary(code, begin, end) else []
    return EXCHANGED.get(token, [])


def faults_of(path):
    """All single faults of a file: (path, begin, end, what comes instead)."""
    with open(path, encoding='utf-8') as file:
        code = blank_out(file.read())
    faults = []
    for found in TOKENS.finditer(code):
        for other in other_tokens(found.group(), code, found.start(), found.end()):
            faults.append((path, found.start(), found.end(), other))
    for found in STATEMENT.finditer(code):
        faults.append((path, found.start(2), found.end(2), ';'))
    return faults


class Tree:
    def __init__(self, work, jobs):
        self.source = os.path.join(work, 'source')
        self.build = os.path.join(work, 'build')
        self.log = os.path.join(work, 'log')
        self.jobs = jobs

    def run(self, *command):
        with open(self.log, 'w', encoding='utf-8') as log:
            return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT, check=False).returncode == 0

    def configure(self):
        return self.run('cmake', '-S', self.source, '-B', self.build, '-DCMAKE_BUILD_TYPE=Debug',
                        '-DCMAKE_CXX_FLAGS_DEBUG=-O1', '-DWMBUSCTL_BENCH=OFF')

    def make(self):
        return self.run('cmake', '--build', self.build, '-j', str(self.jobs // 2))

    def test(self, only):
        return self.run('ctest', '--test-dir', self.build, '-R', only, '-j', str(self.jobs),
                        '--stop-on-failure', '--timeout', '60', '--output-on-failure')

    def objects(self):
        digest = hashlib.sha256()
        for path in sorted(path for folder in FOLDERS for path in
                           glob.glob(f'{self.build}/{folder}/**/*.o', recursive=True)):
            with open(path, 'rb') as file:
                digest.update(file.read())
        return digest.digest()

    def failed_test(self):
        with open(self.log, encoding='utf-8', errors='replace') as log:
            found = re.search(r'Test +#\d+: (\S+) .*(?:Failed|Timeout|Exception|Not Run)', log.read())
        return found.group(1) if found else 'a test'


def show(root, fault):
    path, begin, end, other = fault
    with open(path, encoding='utf-8') as file:
        text = file.read()
    line = text.count('\n', 0, begin) + 1
    first = text.rfind('\n', 0, begin) + 1
    last = text.find('\n', end)
    return (f'{os.path.relpath(path, root)}:{line}: '
            f'{text[first:begin].lstrip()}[{text[begin:end]} -> {other}]{text[end:last]}')


def main():
    work, count, seed, jobs = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
    tree = Tree(os.path.abspath(work), jobs)
    if not (tree.configure() and tree.make() and tree.test('')):
        sys.exit(f'The tests do not pass without a fault: {tree.log}')
    sound = tree.objects()
    faults = [fault for folder in FOLDERS
              for path in sorted(glob.glob(os.path.join(tree.source, folder, '*.cpp')))
              for fault in faults_of(path)]
    random.Random(seed).shuffle(faults)
    print(f'{len(faults)} possible faults, seed {seed}', flush=True)
    survivors, tried, begin = [], 0, time.monotonic()
    for fault in faults:
        if tried == count:
            break
        path, first, last, other = fault
        with open(path, encoding='utf-8') as file:
            text = file.read()
        shown = show(tree.source, fault)
        try:
            with open(path, 'w', encoding='utf-8') as file:
                file.write(text[:first] + other + text[last:])
            if not tree.make() or tree.objects() == sound:
                continue  # no fault: it isn't C++, or the compiler makes the same of it
            tried += 1
            if not tree.test(r'^unit\.') or not tree.test(r'^e2e\.'):
                print(f'{tried:4} noticed by {tree.failed_test()}: {shown}', flush=True)
            else:
                survivors.append(shown)
                print(f'{tried:4} NOT NOTICED: {shown}', flush=True)
        finally:
            with open(path, 'w', encoding='utf-8') as file:
                file.write(text)
    minutes = (time.monotonic() - begin) / 60
    noticed = tried - len(survivors)
    print(f'{noticed} of {tried} noticed, seed {seed}, {minutes:.0f} min. Not noticed:')
    print('\n'.join(survivors))
    sys.exit(0 if noticed * 10 >= tried * 9 else 1)


main()
