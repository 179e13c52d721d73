// Owned references. A Ref takes every new object on the line that creates it, so that every return
// releases it.
//
//   Ref::steal(p)   takes over the reference that a call has returned; null stays null
//   Ref::borrow(p)  adds a reference to an object that has another owner
//   release()       gives the reference to the caller, or to a call that steals it
#pragma once

#include <Python.h>

#include <utility>

namespace modules_util {

class Ref {
public:
    Ref() = default;
    static Ref steal(PyObject *owned) { return Ref(owned); }
    static Ref borrow(PyObject *object) {
        Py_XINCREF(object);
        return Ref(object);
    }

    Ref(Ref &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref &operator=(Ref &&other) noexcept {
        // Release the old object last: its finalizer may run code that sees this Ref.
        PyObject *old = std::exchange(object_, std::exchange(other.object_, nullptr));
        Py_XDECREF(old);
        return *this;
    }
    Ref(const Ref &) = delete;
    Ref &operator=(const Ref &) = delete;
    ~Ref() { Py_XDECREF(object_); }

    explicit operator bool() const { return object_ != nullptr; }
    [[nodiscard]] PyObject *get() const { return object_; }
    [[nodiscard]] PyObject *release() { return std::exchange(object_, nullptr); }

private:
    explicit Ref(PyObject *owned) : object_(owned) {}

    PyObject *object_ = nullptr;
};

}  // namespace modules_util
