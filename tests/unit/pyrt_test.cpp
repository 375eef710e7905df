// The layer over the C API: who owns a reference, and how failures cross between C++ and Python.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/object.h"

namespace pyrt {
namespace {

class Pyrt : public testing::Test {
 protected:
  static void SetUpTestSuite() { Py_Initialize(); }
  static void TearDownTestSuite() { Py_Finalize(); }

  // A new object that nobody else holds.
  static Object New() { return Own(PyList_New(0)); }
  static Py_ssize_t References(const Object& object) { return Py_REFCNT(object.get()); }

  static std::string TextOf(const Object& object) {
    const Object text = Own(PyObject_Str(object.get()));
    const Object bytes = Own(PyUnicode_AsUTF8String(text.get()));
    return PyBytes_AsString(bytes.get());
  }
};

TEST_F(Pyrt, ACopyAddsAReference) {
  const Object object = New();
  ASSERT_EQ(References(object), 1);
  {
    const Object copy = object;
    EXPECT_EQ(References(object), 2);
  }
  EXPECT_EQ(References(object), 1);
}

TEST_F(Pyrt, AMoveAddsNone) {
  Object object = New();
  const Object moved = std::move(object);
  EXPECT_EQ(References(moved), 1);
  EXPECT_FALSE(object);
}

TEST_F(Pyrt, AnObjectCanBeAssignedToItself) {
  Object object = New();
  const Object& alias = object;
  object = alias;
  EXPECT_EQ(References(object), 1);
}

TEST_F(Pyrt, EmptyStandsForNone) {
  const Object empty;
  EXPECT_TRUE(empty.is_none());
  EXPECT_EQ(empty.get_or_none(), Py_None);
  EXPECT_TRUE(empty.is(Object::None()));
}

TEST_F(Pyrt, AFailureIsThrownAndRestoredAsTheSameObject) {
  PyErr_SetString(PyExc_KeyError, "missing");
  PyObject* identity = nullptr;
  PyObject* const result = Guard([&]() -> Object {
    try {
      ThrowPending();
    } catch (const PythonError& error) {
      EXPECT_EQ(PyErr_Occurred(), nullptr);
      identity = error.exception().get();
      throw;
    }
  });
  EXPECT_EQ(result, nullptr);
  const Object raised = Object::Steal(PyErr_GetRaisedException());
  EXPECT_EQ(raised.get(), identity);
}

TEST_F(Pyrt, ExceptionsOfCppBecomeOnesOfPython) {
  EXPECT_EQ(Guard([]() { throw std::bad_alloc(); }), -1);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_MemoryError));
  PyErr_Clear();
  EXPECT_EQ(Guard([]() { throw std::runtime_error("broken"); }), -1);
  EXPECT_NE(PyErr_Occurred(), nullptr);
  PyErr_Clear();
}

TEST_F(Pyrt, AResultCrossesTheBorder) {
  const Object list = New();
  PyObject* const result = Guard([&] { return list; });
  EXPECT_EQ(result, list.get());
  EXPECT_EQ(References(list), 2);
  Py_DECREF(result);
  PyObject* const none = Guard([] { return Object(); });
  EXPECT_EQ(none, Py_None);
  Py_DECREF(none);
  EXPECT_EQ(Guard([] {}), 0);
  EXPECT_EQ(Guard([] { return 3; }), 3);
}

TEST_F(Pyrt, APendingFailureSurvivesADestructor) {
  PyErr_SetString(PyExc_KeyError, "outer");
  {
    const SavedError saved;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
  }
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_KeyError));
  PyErr_Clear();
}

TEST_F(Pyrt, AllStepsAreDoneAndTheFirstFailureIsThrown) {
  int done = 0;
  AllSteps steps;
  steps.Run([&] {
    ++done;
    throw std::runtime_error("first");
  });
  steps.Run([&] {
    ++done;
    throw std::logic_error("second");
  });
  steps.Run([&] { ++done; });
  EXPECT_EQ(done, 3);
  EXPECT_TRUE(steps.failed());
  EXPECT_THROW(steps.Finish(), std::runtime_error);
}

TEST_F(Pyrt, CleanupRunsAfterSuccessAndFailure) {
  int cleaned = 0;
  const auto cleanup = [&] { ++cleaned; };
  EXPECT_EQ(WithCleanup([] { return 5; }, cleanup), 5);
  EXPECT_THROW(WithCleanup([] { throw std::runtime_error("body"); }, cleanup), std::runtime_error);
  EXPECT_EQ(cleaned, 2);
}

TEST_F(Pyrt, UnpackingFailsWithTheTextsOfPython) {
  const auto failure_of = [](const Object& sequence) {
    try {
      Unpack<2>(sequence);
    } catch (const PythonError& error) {
      return TextOf(error.exception());
    }
    return std::string("none");
  };
  EXPECT_EQ(failure_of(MakeTuple(1, 2)), "none");
  EXPECT_EQ(failure_of(MakeTuple(1, 2, 3)), "too many values to unpack (expected 2)");
  EXPECT_EQ(failure_of(MakeTuple(1)), "not enough values to unpack (expected 2, got 1)");
  EXPECT_EQ(failure_of(Own(PyLong_FromLong(1))), "cannot unpack non-iterable int object");
}

TEST_F(Pyrt, UnpackedElementsAreOwned) {
  const Object element = New();
  {
    const auto [a, b] = Unpack<2>(MakeTuple(element, element));
    EXPECT_TRUE(a.is(element));
    EXPECT_EQ(References(element), 3);
  }
  EXPECT_EQ(References(element), 1);
}

TEST_F(Pyrt, AMappingGivesNothingForAnAbsentKey) {
  Dict dict;
  const Object key = Own(PyUnicode_FromString("key"));
  EXPECT_FALSE(dict.Get(key));
  dict.Set(key, Object::None());
  EXPECT_TRUE(dict.Get(key));
  EXPECT_TRUE(dict.Contains(key));
  dict.Discard(key);
  EXPECT_TRUE(dict.empty());
}

TEST_F(Pyrt, AnUnhashableKeyIsAFailure) {
  const Dict dict;
  EXPECT_THROW(dict.Get(New()), PythonError);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(Pyrt, TextsCompareByContent) {
  const Text a = Text::FromUtf8("caf\xC3\xA9 and more");
  const Text b = Text::FromUtf8("caf\xC3\xA9 and more");
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(Text::FromUtf8("abc").equals("abc"));
  EXPECT_TRUE(Text::FromUtf8("a") < Text::FromUtf8("b"));
  EXPECT_FALSE(Text::OrNone(Object()) == a);
  EXPECT_THROW(Text{New()}, PythonError);
}

}  // namespace
}  // namespace pyrt
