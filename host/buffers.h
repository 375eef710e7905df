// Open buffers and analyses: the cache manager and what it hands out.

#ifndef HOST_BUFFERS_H_
#define HOST_BUFFERS_H_

#include "pysource/pyrt/call.h"

namespace host {

// The open buffer of a location.
class Buffer {
 public:
  explicit Buffer(pyrt::Object object) : object_(std::move(object)) {}
  const pyrt::Object& object() const noexcept { return object_; }
  bool is_none() const noexcept { return object_.is_none(); }
  // Whether it has unsaved changes.
  bool IsModified() const {
    static constinit pyrt::Name kName{"IsModified"};
    return pyrt::IsTrue(pyrt::CallMethod(object_, kName));
  }
  // The modification time last seen for it.
  pyrt::Object _GetLastKnownModTime() const {
    static constinit pyrt::Name kName{"_GetLastKnownModTime"};
    return pyrt::CallMethod(object_, kName);
  }

 private:
  pyrt::Object object_;
};

class CacheManager {
 public:
  explicit CacheManager(pyrt::Object object) : object_(std::move(object)) {}

  const pyrt::Object& object() const noexcept { return object_; }

  // The buffer or none.
  Buffer DoesCacheBufferExist(const pyrt::Object& loc) const {
    static constinit pyrt::Name kName{"DoesCacheBufferExist"};
    return Buffer(pyrt::CallMethod(object_, kName, loc, true));
  }
  // An analysis of any class, or none.
  pyrt::Object GetAnalysis(const pyrt::Object& loc, bool create) const {
    static constinit pyrt::Name kName{"GetAnalysis"};
    return pyrt::CallMethod(object_, kName, loc, create);
  }
  void _ClearEOLBlindCacheAndScans() const {
    static constinit pyrt::Name kName{"_ClearEOLBlindCacheAndScans"};
    pyrt::CallMethod(object_, kName);
  }

 private:
  pyrt::Object object_;
};

// The location of an analysis or of a text cache.
inline pyrt::Object fLocation(const pyrt::Object& object) {
  static constinit pyrt::Name kName{"fLocation"};
  return pyrt::GetAttr(object, kName);
}

// The analysis of a Python source file.
class SourceAnalysis {
 public:
  explicit SourceAnalysis(pyrt::Object object) : object_(std::move(object)) {}
  static pyrt::Object Class() {
    static constinit pyrt::Name kModule{"pysource.analysis"};
    static constinit pyrt::Name kName{"CPySourceAnalysis"};
    return pyrt::ModuleAttr(kModule, kName);
  }

  const pyrt::Object& object() const noexcept { return object_; }
  bool is_none() const noexcept { return object_.is_none(); }
  // The name of the scope that holds a line.
  pyrt::Object FindScopeContainingLine(std::int64_t lineno) const {
    static constinit pyrt::Name kName{"FindScopeContainingLine"};
    return pyrt::CallMethod(object_, kName, lineno);
  }
  void UpdateFromCache() const {
    static constinit pyrt::Name kName{"UpdateFromCache"};
    pyrt::CallMethod(object_, kName);
  }

 private:
  pyrt::Object object_;
};

// The class of text buffers, for its signal "text-modified".
inline pyrt::Object CTextCache() {
  static constinit pyrt::Name kModule{"cache.textcache"};
  static constinit pyrt::Name kName{"CTextCache"};
  return pyrt::ModuleAttr(kModule, kName);
}

}  // namespace host

#endif  // HOST_BUFFERS_H_
