"""What every operation can be called with."""

import inspect

import pytest
from arguments import kAll, values_for
from operations import mangled, private
from pysource.scancoordinator import CScanCoordinator
from world import forget

kWithArguments = [name for name, arguments in kAll.items() if arguments]


@pytest.mark.parametrize("name", kAll)
def test_operation_stands_under_its_name(name):
    assert callable(getattr(CScanCoordinator, mangled(name)))
    assert mangled(name) in vars(CScanCoordinator)


@pytest.mark.parametrize("name", kAll)
def test_operation_by_position(world, coordinator, name):
    private(coordinator, name)(*values_for(world, name).values())
    forget()


@pytest.mark.parametrize("name", kAll)
def test_operation_by_keyword_in_any_order(world, coordinator, name):
    values = values_for(world, name)
    private(coordinator, name)(**dict(reversed(values.items())))
    forget()


@pytest.mark.parametrize("name", kAll)
def test_operation_with_required_arguments_only(world, coordinator, name):
    private(coordinator, name)(**values_for(world, name, required_only=True))
    forget()


@pytest.mark.parametrize("name", kAll)
def test_operation_called_on_the_class(world, coordinator, name):
    operation = getattr(CScanCoordinator, mangled(name))
    operation(coordinator, *values_for(world, name).values())
    forget()


@pytest.mark.parametrize("name", kWithArguments)
def test_operation_with_one_argument_missing(world, coordinator, name):
    values = values_for(world, name, required_only=True)
    for missing in values:
        with pytest.raises(TypeError):
            private(coordinator, name)(**{k: v for k, v in values.items() if k != missing})
    forget()


@pytest.mark.parametrize("name", kAll)
def test_operation_with_one_argument_too_many(world, coordinator, name):
    with pytest.raises(TypeError):
        private(coordinator, name)(*values_for(world, name).values(), None)
    with pytest.raises(TypeError):
        private(coordinator, name)(**values_for(world, name), surplus=None)
    forget()


@pytest.mark.parametrize("name", kWithArguments)
def test_operation_with_one_argument_twice(world, coordinator, name):
    values = values_for(world, name)
    first = next(iter(values))
    with pytest.raises(TypeError):
        private(coordinator, name)(*values.values(), **{first: values[first]})
    forget()


@pytest.mark.parametrize("name", kAll)
def test_operation_refuses_another_self(world, name):
    with pytest.raises(TypeError):
        getattr(CScanCoordinator, mangled(name))(object(), *values_for(world, name).values())
    forget()


def test_the_class_tells_what_it_is():
    assert inspect.getdoc(CScanCoordinator)
    assert CScanCoordinator.__module__ == "pysource.scancoordinator"
    assert CScanCoordinator.__name__ == "CScanCoordinator"
    assert CScanCoordinator.__qualname__ == "CScanCoordinator"


def test_the_class_derives_from_the_hosts_base():
    from loombase.destroyable import CDestroyable

    assert CScanCoordinator.__bases__ == (CDestroyable,)
    assert issubclass(CScanCoordinator, CDestroyable)


def test_operations_that_tell_nothing_return_none(world, coordinator):
    for name in (
        "SuspendIdleScans",
        "ResumeIdleScans",
        "Quitting",
        "FlushQueue",
        "_ScheduleIdle",
        "_CancelIdle",
        "__EnsureStatusTimeout",
        "_ScheduleWriteToDatabaseIdle",
        "_UpdateForHelperProcess",
        "_CB_WriteToDatabase",
    ):
        assert private(coordinator, name)() is None
    forget()
