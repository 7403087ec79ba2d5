"""One emitter per attribute kind. Each knows everything its kind becomes:
the reactor handler, accessors, member, attribute-table row and log
fragments, in a value type, an entity or both. The type emitters in
gantgen.py only walk the attributes and concatenate what these return."""
from schema import SchemaError, cpp_type


def upper_first(s):
    return s[0].upper() + s[1:]


def lower_first(s):
    return s[0].lower() + s[1:]


def cstr(s):
    return '"' + s.replace('\\', '\\\\').replace('"', '\\"') + '"'


class Access:
    """How the lambdas of a type's attribute table reach the object. Every
    accessor lambda of the generated tables is built here."""

    def __init__(self, q, entity=False):
        if entity:
            self.cast = f'static_cast<const {q}*>(static_cast<const Gant::Entity*>(o))'
            self.mcast = f'static_cast<{q}*>(static_cast<Gant::Entity*>(o))'
            self.gv = 'v'
        else:
            self.cast = f'static_cast<const {q}*>(o)'
            self.mcast = f'static_cast<{q}*>(o)'
            self.gv = 'g'

    def get(self, expr):
        """expr: the returned expression, with {o} for the const object."""
        param = 'const void* o' if '{o}' in expr else 'const void*'
        return f'[]({param}) -> Gant::GenericValue {{ return {expr.format(o=self.cast)}; }}'

    def set(self, call, ct):
        """call: a setter call with {o} for the object and {v} for the value."""
        v = f'{self.gv}.as<{ct}>()'
        return f'[](void* o, const Gant::GenericValue& {self.gv}) {{ {call.format(o=self.mcast, v=v)}; }}'

    def set_text(self, call, ct=None):
        """call as for set; {v} is the value parsed from the reader."""
        v = f'Gant::Codec<{ct}>::parse(r)'
        return f'[](void* o, Gant::TextReader& r) {{ {call.format(o=self.mcast, v=v)}; }}'

    @staticmethod
    def row(name, kind, type_name, get, set_='nullptr', set_text='nullptr'):
        return [cstr(name), f'Gant::AttrKind::{kind}', cstr(type_name), get, set_, set_text]

    def plain_row(self, name, kind, type_name, ct, getter=None, setter=None):
        """A getter and a checked setter: reflection reads, writes and parses."""
        setter = '{o}->' + (setter or name + 'Is({v})')
        return self.row(name, kind, type_name, self.get('{o}->' + (getter or name + '()')),
                        self.set(setter, ct), self.set_text(setter, ct))


class AttrEmitter:
    """Base: an attribute kind allowed nowhere emits nothing anywhere."""
    options = frozenset()
    in_value = False
    in_entity = False
    what = ''            # the kind as a schema writes it, for messages
    stored = False       # a member of a value type, hashed and logged
    coll = False         # a keyed collection (no text parser for the value)
    ctor_param = False   # a parameter of a value type's full constructor

    @staticmethod
    def headers(a):
        """Headers the generated header includes for this attribute."""
        return []

    def __init__(self, gen, t, a):
        self.g, self.t, self.a = gen, t, a
        self.name = a.name
        self.ct = cpp_type(a.type)
        self.note = f'notify(&Reactor::on{upper_first(a.name)}'

    def check(self, where):
        if where == 'entity' and not self.in_entity or where == 'value' and not self.in_value:
            place = 'an entity' if where == 'entity' else 'a value type'
            raise SchemaError(f'{self.g.file}:{self.a.line}: {self.what} not allowed in {place}')
        for o in self.a.opts:
            if o not in self.options:
                raise SchemaError(f'{self.g.file}:{self.a.line}: unknown option {o} for {self.what} {self.name}')
        if 'range' in self.a.opts:
            check_range(self.a.opts['range'], f'{self.g.file}:{self.a.line}')
        elif 'error' in self.a.opts:
            raise SchemaError(f'{self.g.file}:{self.a.line}: error without range for {self.name}')

    # value-type fragments
    def v_accessors(self, i2):
        return []

    def v_member(self, i2):
        return []

    def v_valid(self):
        return ''

    def v_hash(self):
        return []

    def v_text(self, first):
        """(text lines, parse lines) of this attribute in the text form."""
        return [], []

    def v_log_write(self):
        return []

    def v_log_read(self):
        return []

    # entity fragments
    def reactor(self, i2):
        return []

    def accessors(self, i2):
        return []

    def table_member(self, i2):
        return []

    def member(self, i2):
        return []

    def dtor(self):
        return []

    def log_write(self):
        return []

    def log_apply(self):
        return []

    # both
    def rows(self, acc):
        return []

    # helpers
    def range_check(self, var):
        rng = self.a.opts.get('range')
        if not rng:
            return ''
        lo, hi = rng.split('..')
        err = self.a.opts.get('error') or range_error(f'{self.t.name}::{self.name}', lo, hi)
        return (f'if (std::cmp_less({var}, {lo}) || std::cmp_greater({var}, {hi})) '
                f'Gant::throwRangeError({cstr(err)}); ')

    def text_pair(self, first, label, getter, setter_call):
        sep = '' if first else ', '
        text = [f'   out += "{sep}\'{label}\': "; Gant::Codec<{self.ct}>::text(out, {getter});']
        parse = [f'   r.expect("{sep}\'{label}\': ");',
                 f'   v.{setter_call.format(v=f"Gant::Codec<{self.ct}>::parse(r)")};']
        return text, parse


def check_range(rng, where):
    if not isinstance(rng, str) or len(rng.split('..')) != 2 or not all(x.strip() for x in rng.split('..')):
        raise SchemaError(f'{where}: range=LOW..HIGH expected')


def range_error(subject, lo, hi):
    """The range error a declared range implies: lower bound named only when
    it is above zero."""
    if lo.strip() in ('0', '0u'):
        return f'{subject} > {hi.strip()} not allowed'
    return f'{subject} < {lo.strip()} or > {hi.strip()} not allowed'


class ValueAttr(AttrEmitter):
    """x : T = d"""
    options = frozenset({'range', 'error', 'handset'})
    in_value = in_entity = True
    what = 'value attribute'
    stored = True
    ctor_param = True
    row_kind = 'value'

    def getter(self, i2):
        return [f'{i2}{self.g.ret(self.a.type)} {self.name}() const noexcept {{ return {self.name}_; }}']

    def v_accessors(self, i2):
        if 'handset' in self.a.opts:
            raise SchemaError(f'{self.g.file}:{self.a.line}: handset only on an entity\'s attribute {self.name}')
        out = self.getter(i2)
        rc = self.range_check('v')
        arg = self.g.arg(self.a.type)
        if rc:
            out += [f'{i2}void {self.name}Is({arg} v) {{', f'{i2}   {rc.strip()}',
                    f'{i2}   {self.name}_ = v;', f'{i2}}}']
        else:
            out.append(f'{i2}void {self.name}Is({arg} v) {{ {self.name}_ = v; }}')
        return out

    def v_member(self, i2):
        # 64-bit members align to 8 on every build (i386 aligns them to
        # 4 by default), so records share one layout across builds.
        al = 'alignas(8) ' if self.a.type in ('U64', 'S64', 'double') else ''
        return [f'{i2}{al}{self.ct} {self.name}_ = {self.g.default_expr(self.a.type, self.a.default)};']

    def v_valid(self):
        return f' && Gant::validValue({self.name}_)'

    def v_hash(self):
        return [f'   h = Gant::hashCombine(h, Gant::Codec<{self.ct}>::hash({self.name}_));']

    def v_text(self, first):
        return self.text_pair(first, self.name, f'{self.name}()', self.name + 'Is({v})')

    def v_log_write(self):
        return [f'   Gant::Codec<{self.ct}>::logWrite(w, {self.name}_);']

    def v_log_read(self):
        return [f'   v.{self.name}Is(Gant::Codec<{self.ct}>::logRead(r));']

    def reactor(self, i2):
        return [f'{i2}   virtual void on{upper_first(self.name)}() {{}}']

    def accessors(self, i2):
        out = self.getter(i2)
        # handset: xIs is a hand-written operation that decides what to do
        # and stores through xStore.
        setter = 'Store' if 'handset' in self.a.opts else 'Is'
        out.append(f'{i2}void {self.name}{setter}({self.g.arg(self.a.type)} v) {{')
        rc = self.range_check('v')
        if rc:
            out.append(f'{i2}   {rc.strip()}')
        out += [f'{i2}   if ({self.name}_ == v) return;', f'{i2}   {self.name}_ = v;',
                f'{i2}   {self.note});', f'{i2}}}']
        return out

    def member(self, i2):
        return [f'{i2}{self.ct} {self.name}_ = {self.g.default_expr(self.a.type, self.a.default)};']

    def log_write(self):
        return self.v_log_write()

    def log_apply(self):
        return [f'   {self.name}Is(Gant::Codec<{self.ct}>::logRead(r));']

    def rows(self, acc):
        return [acc.plain_row(self.name, self.row_kind, self.a.type, self.ct)]


class CounterAttr(ValueAttr):
    """counter x : T [dec]"""
    options = frozenset({'range', 'error', 'dec'})
    in_value = False
    what = 'counter'
    row_kind = 'counter'

    def accessors(self, i2):
        ct, n = self.ct, self.name
        out = super().accessors(i2)
        out.append(f'{i2}void {n}Inc({ct} delta = 1) {{ {n}Is(static_cast<{ct}>({n}_ + delta)); }}')
        if self.a.opts.get('dec'):
            out.append(f'{i2}void {n}Dec({ct} delta = 1) {{ {n}Is(static_cast<{ct}>({n}_ - delta)); }}')
        return out


class FixedArrayAttr(AttrEmitter):
    """x : T[N] = d: N values stored inline, named x1..xN in the text form,
    the log and reflection, and reached as x(i) or by those names."""
    options = frozenset({'range', 'error'})
    in_value = True
    what = 'fixed-size array'
    stored = True

    def __init__(self, gen, t, a):
        super().__init__(gen, t, a)
        self.n = a.count

    def elem(self, i):
        return f'{self.name}{i + 1}'

    def v_accessors(self, i2):
        n, ct, arg = self.name, self.ct, self.g.arg(self.a.type)
        rc = self.range_check('v')
        dflt = self.g.default_expr(self.a.type, self.a.default)
        out = [f'{i2}static constexpr unsigned {n}Count = {self.n};',
               f'{i2}{self.g.ret(self.a.type)} {n}(unsigned i) const {{',
               f'{i2}   GANT_ASSERT(i < {n}Count);',
               f'{i2}   return {n}_[i];',
               f'{i2}}}',
               f'{i2}void {n}Is(unsigned i, {arg} v) {{',
               f'{i2}   GANT_ASSERT(i < {n}Count);']
        if rc:
            out.append(f'{i2}   {rc.strip()}')
        out += [f'{i2}   {n}_[i] = v;',
                f'{i2}}}',
                f'{i2}{ct} {n}Del(unsigned i) {{',
                f'{i2}   {ct} old = {n}(i);',
                f'{i2}   {n}Is(i, {dflt});',
                f'{i2}   return old;',
                f'{i2}}}']
        for i in range(self.n):
            e = self.elem(i)
            out.append(f'{i2}{self.g.ret(self.a.type)} {e}() const noexcept {{ return {n}_[{i}]; }}')
            out.append(f'{i2}void {e}Is({arg} v) {{ {n}Is({i}, v); }}')
        return out

    def v_member(self, i2):
        al = 'alignas(8) ' if self.a.type in ('U64', 'S64', 'double') else ''
        init = '{}'
        if self.a.default is not None:
            init = '{' + ', '.join([self.g.default_expr(self.a.type, self.a.default)] * self.n) + '}'
        return [f'{i2}{al}{self.ct} {self.name}_[{self.n}] = {init};']

    def v_valid(self):
        return f' && Gant::validValues({self.name}_)'

    def v_hash(self):
        return [f'   for (const auto& e : {self.name}_) h = Gant::hashCombine(h, Gant::Codec<{self.ct}>::hash(e));']

    def v_text(self, first):
        text, parse = [], []
        for i in range(self.n):
            tx, pa = self.text_pair(first and i == 0, self.elem(i), f'{self.name}_[{i}]',
                                    f'{self.name}Is({i}, {{v}})')
            text += tx
            parse += pa
        return text, parse

    def v_log_write(self):
        return [f'   for (const auto& e : {self.name}_) Gant::Codec<{self.ct}>::logWrite(w, e);']

    def v_log_read(self):
        return [f'   for (unsigned i = 0; i < {self.n}; ++i) v.{self.name}Is(i, Gant::Codec<{self.ct}>::logRead(r));']

    def rows(self, acc):
        return [acc.plain_row(self.elem(i), 'value', self.a.type, self.ct, getter=f'{self.name}({i})',
                              setter=f'{self.name}Is({i}, {{v}})') for i in range(self.n)]


class ConstAttr(AttrEmitter):
    """const x : T = d"""
    in_value = in_entity = True
    what = 'constant'

    def v_accessors(self, i2):
        return [f'{i2}static constexpr {self.ct} {self.name}() noexcept '
                f'{{ return {self.g.default_expr(self.a.type, self.a.default)}; }}']

    accessors = v_accessors

    def v_text(self, first):
        sep = '' if first else ', '
        text = [f'   out += "{sep}\'{self.name}\': "; Gant::Codec<{self.ct}>::text(out, {self.name}());']
        parse = [f'   r.expect("{sep}\'{self.name}\': ");',
                 f'   if (Gant::Codec<{self.ct}>::parse(r) != {self.name}()) r.fail("the constant {self.name}");']
        return text, parse

    def rows(self, acc):
        return [acc.row(self.name, 'constant', self.a.type, acc.get(f'{self.g.qname(self.t)}::{self.name}()'))]


class CollAttr(AttrEmitter):
    """Keyed collections of values: map, set, array."""
    in_value = in_entity = True
    stored = True
    coll = True

    def key_arg(self):
        return self.g.arg(self.a.type)

    def v_accessors(self, i2):
        n, k = self.name, self.key_arg()
        out = [f'{i2}const {self.coll_type()}& {n}() const noexcept {{ return {n}_; }}']
        out += self.v_setters(i2)
        out += [f'{i2}bool {n}Has({k} k) const {{ return {n}_.count(k) != 0; }}',
                f'{i2}void {n}Del({k} k) {{ {n}_.erase(k); }}',
                f'{i2}void {n}DelAll() {{ {n}_.clear(); }}']
        return out

    def v_setters(self, i2):
        return []

    def v_member(self, i2):
        return [f'{i2}{self.coll_type()} {self.name}_;']

    member = v_member

    def v_hash(self):
        return [f'   h = Gant::hashCombine(h, Gant::collectionHash({self.name}_));']

    def v_text(self, first):
        sep = '' if first else ', '
        return [f'   out += "{sep}\'{self.name}\': "; Gant::collectionText(out, {self.name}_);'], []

    def v_log_write(self):
        return [f'   Gant::collectionLogWrite(w, {self.name}_);']

    def v_log_read(self):
        return [f'   Gant::collectionLogRead(r, v.{self.name}_);']

    log_write = v_log_write

    def reactor(self, i2):
        return [f'{i2}   virtual void on{upper_first(self.name)}({self.key_arg()}) {{}}']

    def keyed_accessors(self, i2):
        """Entity side of map and set: lookups, then the notifying setters."""
        n, k = self.name, self.key_arg()
        out = [f'{i2}const {self.coll_type()}& {n}() const noexcept {{ return {n}_; }}',
               f'{i2}bool {n}Has({k} k) const {{ return {n}_.count(k) != 0; }}',
               f'{i2}std::size_t {n}Size() const noexcept {{ return {n}_.size(); }}']
        out += self.setters(i2)
        out += [f'{i2}void {n}Del({k} k) {{', f'{i2}   if ({n}_.erase(k)) {self.note}, k);', f'{i2}}}',
                f'{i2}void {n}Notify({k} k) {{ {self.note}, k); }}',
                f'{i2}void {n}DelAll() {{', f'{i2}   Gant::delAll({n}_, [this]({k} k) {{ {self.note}, k); }});',
                f'{i2}}}']
        return out

    accessors = keyed_accessors

    def rows(self, acc):
        return [acc.row(self.name, 'collection', self.a.type, acc.get(f'Gant::collectionSnapshot({{o}}->{self.name}())'))]


class MapAttr(CollAttr):
    """map x : K -> V [hashed, keyof, reserve=N, handset]"""
    options = frozenset({'hashed', 'keyof', 'reserve', 'handset'})
    what = 'map'

    def coll_type(self):
        kind = ('FlatHashedMap' if self.a.opts.get('reserve') else
                'HashedMap' if self.a.opts.get('hashed') else 'OrderedMap')
        return f'Gant::{kind}<{self.ct}, {cpp_type(self.a.vtype)}>'

    def check(self, where):
        super().check(where)
        where_ = f'{self.g.file}:{self.a.line}'
        if where == 'value' and self.a.opts.get('keyof'):
            raise SchemaError(f'{where_}: keyof only in an entity')
        if where == 'value' and self.a.opts.get('handset'):
            raise SchemaError(f"{where_}: handset only on an entity's attribute {self.name}")
        reserve = self.a.opts.get('reserve')
        if reserve is not None:
            if where == 'value' or not self.a.opts.get('hashed'):
                raise SchemaError(f'{where_}: reserve only on a hashed map of an entity')
            if not str(reserve).isdigit():
                raise SchemaError(f'{where_}: reserve=N expects a number, not {reserve}')

    def member(self, i2):
        reserve = self.a.opts.get('reserve')
        if reserve:
            return [f'{i2}{self.coll_type()} {self.name}_{{{reserve}}};']
        return self.v_member(i2)

    def v_setters(self, i2):
        n, k, v = self.name, self.key_arg(), self.g.arg(self.a.vtype)
        return [f'{i2}{cpp_type(self.a.vtype)} {n}({k} k) const {{ return Gant::mapGet({n}_, k); }}',
                f'{i2}void {n}Is({k} k, {v} v) {{ Gant::mapSet({n}_, k, v); }}']

    def accessors(self, i2):
        if not self.a.opts.get('handset'):
            return self.keyed_accessors(i2)
        # handset: xIs and xDel are hand-written operations that decide what a
        # change does besides storing it (run a handler before the observers
        # hear of it, say); xDelAll removes the members one by one through xDel.
        n, k, vt = self.name, self.key_arg(), cpp_type(self.a.vtype)
        return [f'{i2}const {self.coll_type()}& {n}() const noexcept {{ return {n}_; }}',
                f'{i2}bool {n}Has({k} k) const {{ return {n}_.count(k) != 0; }}',
                f'{i2}std::size_t {n}Size() const noexcept {{ return {n}_.size(); }}',
                f'{i2}{vt} {n}({k} k) const {{ return Gant::mapGet({n}_, k); }}',
                f'{i2}void {n}Notify({k} k) {{ {self.note}, k); }}',
                f'{i2}void {n}DelAll() {{',
                f'{i2}   while (!{n}_.empty()) {{ auto key = {n}_.begin()->first; {n}Del(key); }}',
                f'{i2}}}']

    def setters(self, i2):
        n, k, vt = self.name, self.key_arg(), cpp_type(self.a.vtype)
        out = [f'{i2}{vt} {n}({k} k) const {{ return Gant::mapGet({n}_, k); }}']
        if self.a.opts.get('keyof'):
            # Values keyed by their own key.
            out += [f'{i2}void {n}Is({self.g.arg(self.a.vtype)} v) {{', f'{i2}   const auto& k = v.key();',
                    f'{i2}   if (Gant::mapSet({n}_, k, v)) {self.note}, k);', f'{i2}}}']
        else:
            out += [f'{i2}void {n}Is({k} k, {self.g.arg(self.a.vtype)} v) {{',
                    f'{i2}   if (Gant::mapSet({n}_, k, v)) {self.note}, k);', f'{i2}}}']
        return out

    def log_apply(self):
        n, kt, vt = self.name, self.ct, cpp_type(self.a.vtype)
        if self.a.opts.get('keyof'):
            return [f'   for (uint32_t n = r.uint<uint32_t>(); n > 0; --n) {{',
                    f'      auto fwkKey = [k = Gant::Codec<{kt}>::logRead(r)] {{ return k; }};',
                    f'      auto _value = Gant::Codec<{vt}>::logRead(r);',
                    f'      auto KeyFunktor = [] {{ return [](const {vt}& v) {{ return v.key(); }}; }};',
                    '      // A value stored under a key other than its own breaks the collection.',
                    '      GANT_ASSERT(fwkKey() == KeyFunktor()( _value ));',
                    f'      {n}Is(_value);',
                    '   }']
        return [f'   for (uint32_t n = r.uint<uint32_t>(); n > 0; --n) {{ auto k = Gant::Codec<{kt}>::logRead(r); '
                f'{n}Is(k, Gant::Codec<{vt}>::logRead(r)); }}']


class SetAttr(CollAttr):
    """set x : K [hashed]"""
    options = frozenset({'hashed'})
    what = 'set'

    def coll_type(self):
        return f'Gant::{"HashedSet" if self.a.opts.get("hashed") else "OrderedSet"}<{self.ct}>'

    def v_setters(self, i2):
        return [f'{i2}void {self.name}Is({self.key_arg()} k) {{ {self.name}_.insert(k); }}']

    def setters(self, i2):
        n = self.name
        return [f'{i2}{self.ct} {n}Is({self.key_arg()} k) {{', f'{i2}   if ({n}_.insert(k).second) {self.note}, k);',
                f'{i2}   return k;', f'{i2}}}']

    def log_apply(self):
        return [f'   for (uint32_t n = r.uint<uint32_t>(); n > 0; --n) '
                f'{self.name}Is(Gant::Codec<{self.ct}>::logRead(r));']


class DenseArrayAttr(CollAttr):
    """array x : I -> V: indexed by a small integer, a missing entry reads as
    the default."""
    what = 'array'

    def coll_type(self):
        return f'Gant::DenseArray<{cpp_type(self.a.vtype)}>'

    def reactor(self, i2):
        return [f'{i2}   virtual void on{upper_first(self.name)}({self.ct}) {{}}']

    def accessors(self, i2):
        n, k, vt = self.name, self.ct, cpp_type(self.a.vtype)
        return [f'{i2}const {self.coll_type()}& {n}() const noexcept {{ return {n}_; }}',
                f'{i2}{vt} {n}({k} i) const {{ return {n}_.get(i); }}',
                f'{i2}void {n}Is({k} i, {self.g.arg(self.a.vtype)} v) {{',
                f'{i2}   if ({n}_.set(i, v)) {self.note}, i);', f'{i2}}}',
                f'{i2}void {n}Del({k} i) {{', f'{i2}   if ({n}_.del(i)) {self.note}, i);', f'{i2}}}',
                f'{i2}void {n}DelAll() {{',
                f'{i2}   for (std::size_t i = {n}_.size(); i-- > 0;) {n}Del(static_cast<{k}>(i));', f'{i2}}}']

    def log_apply(self):
        return [f'   for (uint32_t n = r.uint<uint32_t>(), i = 0; i < n; ++i) '
                f'{self.name}Is(static_cast<{self.ct}>(i), Gant::Codec<{cpp_type(self.a.vtype)}>::logRead(r));']


class ChildrenAttr(CollAttr):
    """children x : E [key=K, backref, check=F]"""
    options = frozenset({'key', 'backref', 'check'})
    in_value = False
    what = 'children'

    def key_type(self):
        return self.g.child_key_type(self.a)

    def key_arg(self):
        return self.g.arg(self.key_type())

    def coll_type(self):
        return f'Gant::OrderedMap<{cpp_type(self.key_type())}, Gant::Ptr<{self.ct}>>'

    def accessors(self, i2):
        n, ct, k = self.name, self.ct, self.key_arg()
        factory = lower_first(self.a.type.split('::')[-1]) + 'Factory'
        if '::' in self.a.type:
            factory = self.a.type.rsplit('::', 1)[0] + '::' + factory
        fargs = 'k, this' if self.g.child_backref(self.a) else 'k'
        check = self.a.opts.get('check')
        chk = f'(void){check}(k); ' if check else ''
        return [f'{i2}const {self.coll_type()}& {n}() const noexcept {{ return {n}_; }}',
                f'{i2}Gant::Ptr<{ct}> {n}({k} k) const {{',
                f'{i2}   auto it = {n}_.find(k);',
                f'{i2}   return it == {n}_.end() ? nullptr : it->second;',
                f'{i2}}}',
                f'{i2}bool {n}Has({k} k) const {{ return {n}_.count(k) != 0; }}',
                f'{i2}std::size_t {n}Size() const noexcept {{ return {n}_.size(); }}',
                f'{i2}Gant::Ptr<{ct}> {n}Is({k} k) {{',
                f'{i2}   auto it = {n}_.find(k);',
                f'{i2}   if (it != {n}_.end()) return it->second;',
                f'{i2}   {chk}Gant::Ptr<{ct}> child = {factory}({fargs});',
                f'{i2}   child->parentIs(this);',
                f'{i2}   {n}_.emplace(k, child);',
                f'{i2}   {self.note}, k);',
                f'{i2}   return child;',
                f'{i2}}}',
                f'{i2}void {n}Del({k} k) {{',
                f'{i2}   auto it = {n}_.find(k);',
                f'{i2}   if (it == {n}_.end()) return;',
                f'{i2}   it->second->parentIs(nullptr);',
                f'{i2}   {n}_.erase(it);',
                f'{i2}   {self.note}, k);',
                f'{i2}}}',
                f'{i2}void {n}DelAll() {{',
                f'{i2}   while (!{n}_.empty()) {{ auto key = {n}_.begin()->first; {n}Del(key); }}',
                f'{i2}}}',
                f'{i2}void {n}Notify({k} k) {{ {self.note}, k); }}']

    def dtor(self):
        return [f'   for (auto& [k, child] : {self.name}_) child->parentIs(nullptr);']

    def log_write(self):
        kt = cpp_type(self.key_type())
        return [f'   w.uint<uint32_t>(static_cast<uint32_t>({self.name}_.size()));',
                f'   for (const auto& [k, child] : {self.name}_) {{ '
                f'Gant::Codec<{kt}>::logWrite(w, k); child->gantLogWrite(w); }}']

    def log_apply(self):
        kt = cpp_type(self.key_type())
        return [f'   for (uint32_t n = r.uint<uint32_t>(); n > 0; --n) '
                f'{self.name}Is(Gant::Codec<{kt}>::logRead(r))->gantLogApply(r);']

    def rows(self, acc):
        return [acc.row(self.name, 'children', self.a.type, acc.get(f'Gant::collectionSnapshot({{o}}->{self.name}())'))]


class RefAttr(AttrEmitter):
    """ref x : E"""
    in_entity = True
    what = 'ref'

    def reactor(self, i2):
        return [f'{i2}   virtual void on{upper_first(self.name)}() {{}}']

    def accessors(self, i2):
        n, ct = self.name, self.ct
        return [f'{i2}const Gant::Ptr<{ct}>& {n}() const noexcept {{ return {n}_; }}',
                f'{i2}void {n}Is(const Gant::Ptr<{ct}>& v) {{', f'{i2}   if ({n}_ == v) return;',
                f'{i2}   {n}_ = v;', f'{i2}   {self.note});', f'{i2}}}']

    def member(self, i2):
        return [f'{i2}Gant::Ptr<{self.ct}> {self.name}_;']

    def rows(self, acc):
        return [acc.row(self.name, 'reference', self.a.type,
                        acc.get(f'Gant::entityName({{o}}->{self.name}().ptr())'),
                        acc.set('{o}->' + self.name + 'Is({v})', f'Gant::Ptr<{self.ct}>'))]


class BackrefAttr(AttrEmitter):
    """backref x : E: the owner, given at creation."""
    in_entity = True
    what = 'backref'

    def accessors(self, i2):
        return [f'{i2}{self.ct}* {self.name}() const noexcept {{ return {self.name}_; }}']

    def member(self, i2):
        return [f'{i2}{self.ct}* {self.name}_ = nullptr;']

    def rows(self, acc):
        return [acc.row(self.name, 'reference', self.a.type, acc.get(f'Gant::entityName({{o}}->{self.name}())'))]


class PondAttr(AttrEmitter):
    """pond x : R [capacity=N, traced, whole]: a collection of a shared table."""
    options = frozenset({'capacity', 'traced', 'whole'})
    in_entity = True
    what = 'pond collection'

    def __init__(self, gen, t, a):
        super().__init__(gen, t, a)
        self.idx = [x for x in t.attrs if KINDS[x.kind] is PondAttr].index(a)
        self.kt = f'typename Pond::Record<{self.ct}>::Key'
        self.whole_note = self.note
        if a.opts.get('whole'):
            # The handler is overloaded: name the one meant.
            h = f'&Reactor::on{upper_first(a.name)}'
            self.note = f'notify(static_cast<void (Reactor::*)(const {self.kt}&)>({h})'
            self.whole_note = f'notify(static_cast<void (Reactor::*)()>({h})'

    @staticmethod
    def headers(a):
        return ['pond/TableEntity.h'] + (['flashlog/Flashlog.h'] if a.opts.get('traced') else [])

    def reactor(self, i2):
        out = [f'{i2}   virtual void on{upper_first(self.name)}(const {self.kt}&) {{}}']
        if self.a.opts.get('whole'):
            out.append(f'{i2}   // The collection as a whole: emptied, or to be read again.')
            out.append(f'{i2}   virtual void on{upper_first(self.name)}() {{}}')
        return out

    def accessors(self, i2):
        n, ct, kt, idx, note = self.name, self.ct, self.kt, self.idx, self.note
        w = f'{n}Writer_'
        tr = self.a.opts.get('traced')
        out = [f'{i2}// {n}: a collection of the shared table (see pond/TableEntity.h).',
               f'{i2}[[gnu::always_inline]] Pond::Found<{ct}> {n}(const {kt}& k) const {{',
               f'{i2}   return Pond::MapReader<{ct}>(collectionView({idx})).find(k);',
               f'{i2}}}',
               f'{i2}uint32_t {n}Size() const {{ return collectionView({idx}).size(); }}',
               f'{i2}// The collection as lookups see it (prefetch hints, sizes).',
               f'{i2}const Pond::CollectionReader& {n}View() const {{ return collectionView({idx}); }}',
               f'{i2}// Slot by slot, for a walk that keeps its place: a record that breaks',
               f'{i2}// its rules reads as corrupt.',
               f'{i2}uint32_t {n}Capacity() const {{ return collectionView({idx}).map().capacity; }}',
               f'{i2}// The slots a walk need look at: none past them was ever written.',
               f'{i2}uint32_t {n}SlotsUsed() const {{ return collectionView({idx}).slotsUsed(); }}',
               f'{i2}Pond::ReadStatus {n}AtSlot(uint32_t s, {ct}& r) const {{',
               f'{i2}   const Pond::ReadStatus st = collectionView({idx}).readSlot(s, &r);',
               f'{i2}   return st == Pond::ReadStatus::found && !Gant::validValue(r) ? Pond::ReadStatus::corrupt : st;',
               f'{i2}}}',
               f'{i2}// Every record, in slot order; records that break their rules are skipped.',
               f'{i2}template <class F>',
               f'{i2}void {n}ForEach(F f) const {{',
               f'{i2}   {ct} r;',
               f'{i2}   for (uint32_t s = 0, used = {n}SlotsUsed(); s < used; ++s)',
               f'{i2}      if ({n}AtSlot(s, r) == Pond::ReadStatus::found) f(r);',
               f'{i2}}}',
               f'{i2}void {n}Is(const {ct}& r) {{',
               f'{i2}   requireWriter();']
        if tr:
            out.append(f'{i2}   FLASHLOG(*{n}IsTrace_, 8, r.key().pretty());')
        out += [f'{i2}   if ({w}->set(r)) {note}, r.key());', f'{i2}}}',
                f'{i2}void {n}Del(const {kt}& k) {{', f'{i2}   requireWriter();']
        if tr:
            out.append(f'{i2}   FLASHLOG(*{n}DelTrace_, 8, k.pretty());')
        out += [f'{i2}   if ({w}->del(k)) {note}, k);', f'{i2}}}',
                f'{i2}void {n}DelAll() {{',
                f'{i2}   requireWriter();',
                f'{i2}   std::vector<{kt}> keys;',
                f'{i2}   collectionWriter({idx}).forEachLive([&](const void* p) {{ keys.push_back(Pond::keyOf<{ct}>(p)); }});',
                f'{i2}   for (const auto& k : keys) {n}Del(k);']
        if self.a.opts.get('whole'):
            out.append(f'{i2}   {self.whole_note});')
        out += [f'{i2}}}',
                f'{i2}// Modify in place, then commit.',
                f'{i2}{ct}& {n}Modify(const {kt}& k) {{',
                f'{i2}   requireWriter();',
                f'{i2}   return {w}->modify(k);',
                f'{i2}}}',
                f'{i2}void {n}Commit(const {ct}* r) {{',
                f'{i2}   requireWriter();',
                f'{i2}   {w}->commit(r);',
                f'{i2}   {note}, r->key());',
                f'{i2}}}',
                f'{i2}void {n}Notify(const {kt}& k) {{']
        if tr:
            out.append(f'{i2}   FLASHLOG(*{n}NotifyTrace_, 8, k.pretty());')
        out += [f'{i2}   if (isWriter()) {w}->notify(k);', f'{i2}   {note}, k);', f'{i2}}}']
        if self.a.opts.get('whole'):
            out.append(f'{i2}void {n}Notify() {{ {self.whole_note}); }}')
        return out

    def table_member(self, i2):
        out = [f'{i2}std::unique_ptr<Pond::MapWriter<{self.ct}>> {self.name}Writer_;']
        if self.a.opts.get('traced'):
            # Registered with the trace facility when the entity is built.
            for op in ('Is', 'Del', 'Notify'):
                out.append(f'{i2}Flashlog::Handle* {self.name}{op}Trace_ = &Flashlog::handle("{self.name}{op}");')
        return out

    def shape(self):
        return f'Pond::Record<{self.ct}>::shape({cstr(self.name)}, {self.a.opts.get("capacity", "1024")})'

    def codec(self):
        return f'Pond::Record<{self.ct}>::codec()'

    def bind(self):
        return [f'   {self.name}Writer_ = std::make_unique<Pond::MapWriter<{self.ct}>>(collectionWriter({self.idx}));']

    def dispatch(self):
        return [f'   if (collection == {self.idx}) return {self.note}, Pond::keyOf<{self.ct}>(key));']

    def rows(self, acc):
        return [acc.row(self.name, 'collection', self.a.type, acc.get(f'{{o}}->{self.name}Size()'))]


KINDS = {
    'value': ValueAttr, 'counter': CounterAttr, 'fixed': FixedArrayAttr, 'const': ConstAttr,
    'map': MapAttr, 'set': SetAttr, 'array': DenseArrayAttr, 'children': ChildrenAttr,
    'ref': RefAttr, 'backref': BackrefAttr, 'pond': PondAttr,
}


def emitter(gen, t, a, where):
    e = KINDS[a.kind](gen, t, a)
    e.check(where)
    return e
