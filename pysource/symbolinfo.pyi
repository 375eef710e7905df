from collections.abc import Iterable, Mapping
from typing import Any, Final, NamedTuple, TypeAlias

from typing_extensions import disjoint_base

_Byte: TypeAlias = int | bytes
_Utf8: TypeAlias = str | bytes

# The syntax of scope names and information strings: docs/names.md.

kWildcardScope: Final[str]
kModuleScopeName: Final[str]
kScopeIndexSep: Final[str]
kDefLineScopeName: Final[str]
_kDotLineScopeName: Final[str]
kClassInstanceSuffix: Final[str]
kIterationSubscript: Final[str]
kSelfTypeVarName: Final[str]
kUnknownLogicalIndex: Final[int]
kPrefixLen: Final[int]
kPlainEquivKind: Final[int]
kPlainEquivSpec: Final[bytes]
kSpecificScopePrefixStr: Final[str]
kSpecificUrlPrefixStr: Final[str]
kSetKind: Final[int]
kSetPrefix: Final[bytes]
kGetKind: Final[int]
kGetPrefix: Final[bytes]
kSetTypeHintKind: Final[int]
kSetTypeHintPrefix: Final[bytes]
kNonlocalKind: Final[int]
kNonlocalPrefix: Final[bytes]
kGlobalKind: Final[int]
kGlobalPrefix: Final[bytes]
kWithinExprKind: Final[int]
kWithinExprPrefix: Final[bytes]
kImportKind: Final[int]
kImportPrefix: Final[bytes]
kFromImportKind: Final[int]
kFromImportPrefix: Final[bytes]
kImportAsNameKind: Final[int]
kImportAsNamePrefix: Final[bytes]
kDecoratorKind: Final[int]
kDecoratorPrefix: Final[bytes]
kSpecificScopeKind: Final[int]
kSpecificScopePrefix: Final[bytes]
kSpecificUrlKind: Final[int]
kSpecificUrlPrefix: Final[bytes]
kBuiltinModuleKind: Final[int]
kBuiltinModulePrefix: Final[bytes]
kTypingModuleKind: Final[int]
kTypingModulePrefix: Final[bytes]
kBuiltinClassKind: Final[int]
kBuiltinClassPrefix: Final[bytes]
kTypedLiteralKind: Final[int]
kTypedLiteralPrefix: Final[bytes]
kArgKind: Final[int]
kArgPrefix: Final[bytes]
kTypeHintKind: Final[int]
kTypeHintPrefix: Final[bytes]
kExpressionEquivKind: Final[int]
kExpressionEquivPrefix: Final[bytes]
kMethodKind: Final[int]
kMethodPrefix: Final[bytes]
kUnboundMethodKind: Final[int]
kUnboundMethodPrefix: Final[bytes]
kFunctionKind: Final[int]
kFunctionPrefix: Final[bytes]
kClassKind: Final[int]
kClassPrefix: Final[bytes]
kSelfKind: Final[int]
kSelfPrefix: Final[bytes]
kInstanceKind: Final[int]
kInstancePrefix: Final[bytes]
kModuleKind: Final[int]
kModulePrefix: Final[bytes]
kInferredTypeHintKind: Final[int]
kInferredTypeHintPrefix: Final[bytes]
kConditionalKind: Final[int]
kConditionalPrefix: Final[bytes]
kCalledKind: Final[int]
kCalledPrefix: Final[bytes]
kTypeParameterKind: Final[int]
kTypeParameterPrefix: Final[bytes]
kGenericTypeAliasKind: Final[int]
kGenericTypeAliasPrefix: Final[bytes]
kDefLineScopeKind: Final[int]
kDefLineScopePrefix: Final[bytes]
kLogicalIndexKind: Final[int]
kLogicalIndexPrefix: Final[bytes]
kDiscardCallResultStatementKind: Final[int]
kDiscardCallResultStatementPrefix: Final[bytes]
kSetTrailersKind: Final[int]
kSetTrailersPrefix: Final[bytes]

class CDefInfo(NamedTuple):
    """What the part of a function, method or class says."""

    kind: int
    scope_name: str
    line: int | None
    bases: str | None

class CFullyScopedName(NamedTuple):
    """An expression and the scope in which its names are looked up."""

    scope_name: str | None
    expr: str
    type_hint: bool

@disjoint_base
class CScope:
    """A scope, known by its name."""

    def __init__(self, scope_name: str | None) -> None: ...
    @property
    def scope_name(self) -> str | None: ...
    def UnspecializedName(self) -> str | None: ...
    def ParentName(self) -> str: ...
    def ParentAndLeaf(self) -> tuple[str, str]: ...
    def IsTopLevelModule(self) -> bool: ...
    def ExprIn(self, expr: _Utf8, type_hint: bool = False) -> CFullyScopedName: ...

@disjoint_base
class CKindFilter:
    """A set of kinds."""

    def __init__(self, kinds: Iterable[_Byte] = ()) -> None: ...
    def KindMatches(self, kind: _Byte) -> bool: ...

@disjoint_base
class CLocationCache:
    """Holds the location of the builtins, which a subclass finds."""

    def __init__(self) -> None: ...
    def GetBuiltinLoc(self) -> Any:
        """The location, or None; asks `_FindBuiltinLoc` until that gives one."""

    def _FindBuiltinLoc(self) -> Any: ...

@disjoint_base
class CInferContext:
    """Whether inference is isolated, and why."""

    def __init__(self, isolated: int = 0, reasons: Mapping[Any, Any] | None = None) -> None: ...
    def __Isolated(self, reason: object) -> bool: ...

@disjoint_base
class CNode:
    """Base class of parser nodes."""

    def __init__(self, *args: Any, **kwargs: Any) -> None: ...

def IsDefKind(kind: _Byte) -> bool: ...
def IsDefOrClassKind(kind: _Byte) -> bool: ...
def GetInfoBytesKind(ibytes_ptr: _Utf8) -> int: ...
def IsTopLevelModuleScope(scope: str) -> bool: ...
def IsDefLineScope(scope: str) -> bool: ...
def IsParentOfDefLineScope(maybe_parent: str, def_line_scope: str) -> bool: ...
def NextNonNestedUtf8PtrIndex(utf8_ptr: _Utf8, pos: int, end_pos: int) -> int: ...
def _NonInlineNextNonNestedUtf8PtrIndex(utf8_ptr: _Utf8, pos: int, end_pos: int) -> int: ...
def ParentScopeName(scope_name: str) -> str: ...
def ParentAndLeafScopeNames(scope_name: str) -> tuple[str, str]: ...
def IsInstanceScope(scope_name: str) -> bool: ...
def GetInstanceNameForClass(class_name: str) -> str | None: ...
def GetClassForInstanceName(instance_name: str) -> str: ...
def SplitScopeNameFromSuffixes(leaf: str) -> tuple[str, str]: ...
def RemoveAllScopeNameSubscripts(scope_name: str) -> str: ...
def InfoContains(
    information: _Utf8, prefixes: _Utf8 | tuple[_Utf8, ...] | list[_Utf8]
) -> bool: ...
def NonNestedSplit[T: (str, bytes)](information: T, separator: _Utf8) -> list[T]: ...
def UnpackDefInfoStr(part: bytes) -> CDefInfo: ...
def FullyScopedNameWithScope(
    scope: CScope, expr: _Utf8, type_hint: bool = False
) -> CFullyScopedName: ...
def FinishedWithNode(node: CNode | None) -> None: ...
def __FinishedWithNode(node: CNode | None) -> None: ...
