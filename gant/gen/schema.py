"""Parser for type schemas (*.gant).

A schema describes each type once; gantgen.py turns it into C++. Syntax, one
declaration per line, nesting by indentation, '#' starts a comment:

    include "platform/IntfId.h"
    namespace Routing::Multicast::Fib

    enum CounterMode : U32
       None = 0
       packetMode = 1

    scalar VlanId : U16 = 1 [range=1..4094]   # range error text derived
       static null = 0                  # static constexpr VlanId null()

    scalar Reason : U32
       bit blocked = 24                 # blocked(), blockedIs(bool), blockedMask
       op bool bad() const              # hand-written
       view bad : bool                  # reflection reads bad()

    flags IntfFlags : U32 [ordered]
       forward                          # bit 0, then 1, ...

    value Intf [ordered, bang]
       intfId : Pakto::IntfId
       intfFlags : IntfFlags
       word : U64[8] = 0                # fixed-size array, elements word1..word8

    entity Config [key=name : Name]
       routing : bool = false
       const fastdropDefault : bool = true
       counter clearMfibCount : U8 [dec]
       map counterRoute : IpGenRouteKey -> bool [hashed]
       set fastFailoverIntf : Pakto::IntfId
       array intfIdColl : U16 -> Pakto::IntfId
       children config : Config                 # key type taken from Config
       ref intfs : MulticastIntfsForApplications
       backref pimIntfStatus : Status
       op bool isDefault() const                # hand-written, declared verbatim
       init doInit                              # hand-written, run by the constructor
       fini doCleanup                           # hand-written, run first by the destructor

Options follow a blank in brackets; docs/type-framework.md lists them all.
"""
import re

BUILTINS = {
    'bool': 'bool', 'U8': 'uint8_t', 'U16': 'uint16_t', 'U32': 'uint32_t', 'U64': 'uint64_t',
    'S8': 'int8_t', 'S16': 'int16_t', 'S32': 'int32_t', 'S64': 'int64_t', 'double': 'double',
    'String': 'Gant::String', 'Name': 'Gant::Name',
}
ARITH = {'bool', 'U8', 'U16', 'U32', 'U64', 'S8', 'S16', 'S32', 'S64', 'double'}


class SchemaError(Exception):
    pass


def cpp_type(t):
    return BUILTINS.get(t, t)


def parse_opts(text):
    """'a, b=1..2, error="x, y"' -> {'a': True, 'b': '1..2', 'error': 'x, y'}"""
    opts = {}
    for m in re.finditer(r'\s*(\w+)(?:\s*=\s*("(?:[^"\\]|\\.)*"|[^,]+))?\s*(?:,|$)', text or ''):
        val = m.group(2)
        if val is None:
            opts[m.group(1)] = True
        else:
            val = val.strip()
            if val.startswith('"'):
                val = val[1:-1].replace('\\"', '"')
            opts[m.group(1)] = val
    return opts


def split_opts(line):
    """Separates a trailing [options] block (outside quotes) from the line."""
    m = re.match(r'^(.*?)\s+\[((?:[^\]"]|"(?:[^"\\]|\\.)*")*)\]\s*$', line)
    if m:
        return m.group(1), parse_opts(m.group(2))
    return line, {}


class Node:
    def __init__(self, kind, name, opts, line):
        self.kind, self.name, self.opts, self.line = kind, name, opts, line
        self.children = []   # nested types
        self.attrs = []
        self.members = []    # enum members, flag bits
        self.ops = []
        self.inits = []
        self.finis = []
        self.statics = []
        self.views = []      # a scalar's named bits and read-only views, in order
        self.base = None     # underlying type of enum/scalar/flags; an entity's base entity
        self.ns = None       # namespace of a top-level type
        self.mount = None    # mount path pattern, '{6}' marks the IPv6 variant
        self.default = None
        self.outer = None    # enclosing type node


class Attr:
    def __init__(self, mod, name, type_, vtype, default, opts, line):
        self.mod, self.name, self.type, self.vtype = mod, name, type_, vtype
        self.default, self.opts, self.line = default, opts, line
        self.count = None    # N of a fixed-size array T[N]
        m = re.match(r'^(.+?)\s*\[(\d+)\]$', type_)
        if m:
            self.type, self.count = m.group(1), int(m.group(2))
        # The emitter that handles the attribute (see attrs.py).
        self.kind = 'fixed' if self.count is not None and mod == 'value' else mod


class Schema:
    def __init__(self):
        self.includes = []
        self.after = []      # headers of hand-written inline definitions
        self.namespace = None
        self.types = []
        self.funcs = []      # (namespace, verbatim declaration)


# The declaration lines each kind of type takes besides its attributes.
LINES_IN = {
    'enum': set(),
    'scalar': {'op', 'mount', 'static', 'bit', 'view'},
    'flags': {'op', 'mount', 'static'},
    'value': {'op', 'mount', 'static'},
    'entity': {'op', 'mount', 'init', 'fini'},
}

ATTR_RE = re.compile(
    r'^(?:(const|counter|map|set|array|children|ref|backref|pond)\s+)?(\w+)\s*:\s*'
    r'(.+?)(?:\s*->\s*(.+?))?(?:\s*=\s*(.+?))?$')
TYPE_RE = re.compile(r'^(enum|scalar|flags|value|entity)\s+(\w+)(?:\s*:\s*([\w:]+))?(?:\s*=\s*(.+))?$')


def parse(text, filename='<schema>'):
    schema = Schema()
    lines = []
    for no, raw in enumerate(text.splitlines(), 1):
        code = raw.split('#', 1)[0].rstrip() if '"' not in raw else strip_comment(raw)
        if not code.strip():
            continue
        indent = len(code) - len(code.lstrip(' '))
        lines.append((indent, code.strip(), no))

    def err(no, msg):
        raise SchemaError(f'{filename}:{no}: {msg}')

    def parse_block(i, indent, node):
        while i < len(lines):
            ind, code, no = lines[i]
            if ind < indent:
                return i
            if ind > indent:
                err(no, 'unexpected indentation')
            i += 1
            body, opts = split_opts(code)
            m = TYPE_RE.match(body)
            if m:
                t = Node(m.group(1), m.group(2), opts, no)
                t.base, t.default, t.outer = m.group(3), m.group(4), node
                if i < len(lines) and lines[i][0] > indent:
                    i = parse_block(i, lines[i][0], t)
                if node is None:
                    if not schema.namespace:
                        err(no, 'namespace expected before the first type')
                    t.ns = schema.namespace
                    schema.types.append(t)
                else:
                    node.children.append(t)
                continue
            if node is None:
                if body.startswith('include '):
                    schema.includes.append(body.split(None, 1)[1].strip().strip('"'))
                elif body.startswith('namespace '):
                    schema.namespace = body.split(None, 1)[1].strip()
                elif body.startswith('after '):
                    schema.after.append(body.split(None, 1)[1].strip().strip('"'))
                elif body.startswith('func '):
                    if not schema.namespace:
                        err(no, 'namespace expected before a function')
                    schema.funcs.append((schema.namespace, code.strip()[5:].strip()))
                else:
                    err(no, f'unknown declaration: {body}')
                continue
            word = body.split(None, 1)[0]
            if word in ('mount', 'init', 'fini', 'static', 'bit', 'view') or node.kind in ('enum', 'flags'):
                if opts:
                    err(no, 'no options on this line')
                if word in ('op', 'mount', 'init', 'fini', 'static', 'bit', 'view') and word not in LINES_IN[node.kind]:
                    err(no, f'{word} not allowed in {"an" if node.kind[0] in "ae" else "a"} {node.kind}')
            if body.startswith('op '):
                node.ops.append(code[3:].strip())
            elif body.startswith('mount '):
                node.mount = body.split(None, 1)[1].strip().strip('"')
            elif body.startswith('init '):
                node.inits.append(body.split(None, 1)[1].strip())
            elif body.startswith('fini '):
                node.finis.append(body.split(None, 1)[1].strip())
            elif body.startswith('static '):
                mm = re.match(r'static\s+(\w+)\s*=\s*(.+)$', body)
                if not mm:
                    err(no, 'static NAME = VALUE expected')
                node.statics.append((mm.group(1), mm.group(2)))
            elif body.startswith('bit '):
                mm = re.match(r'bit\s+(\w+)\s*=\s*(\d+)$', body)
                if not mm:
                    err(no, 'bit NAME = POSITION expected')
                node.views.append(('bit', mm.group(1), int(mm.group(2)), no))
            elif body.startswith('view '):
                mm = re.match(r'view\s+(\w+)\s*:\s*(\w+)$', body)
                if not mm:
                    err(no, 'view NAME : TYPE expected')
                node.views.append(('view', mm.group(1), mm.group(2), no))
            elif node.kind == 'enum':
                mm = re.match(r'(\w+)\s*=\s*(\S+)$', body)
                if not mm:
                    err(no, 'enum member NAME = VALUE expected')
                node.members.append((mm.group(1), mm.group(2)))
            elif node.kind == 'flags':
                if not re.match(r'\w+$', body):
                    err(no, 'flag name expected')
                node.members.append((body, opts))
            elif node.kind == 'scalar':
                err(no, 'a scalar holds only static lines')
            else:
                mm = ATTR_RE.match(body)
                if not mm:
                    err(no, f'attribute expected: {body}')
                a = Attr(mm.group(1) or 'value', mm.group(2), mm.group(3).strip(),
                         mm.group(4) and mm.group(4).strip(), mm.group(5) and mm.group(5).strip(), opts, no)
                if a.count is not None and a.kind != 'fixed':
                    err(no, f'{a.mod} {a.name}: a fixed-size array is a plain attribute')
                if a.count == 0:
                    err(no, f'{a.name}: an array of no elements')
                node.attrs.append(a)
        return i

    parse_block(0, 0, None)
    if not schema.namespace:
        raise SchemaError(f'{filename}: no namespace declared')
    return schema


def strip_comment(raw):
    out, q = [], False
    for c in raw:
        if c == '"':
            q = not q
        if c == '#' and not q:
            break
        out.append(c)
    return ''.join(out).rstrip()
