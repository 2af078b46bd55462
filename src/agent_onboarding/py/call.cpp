#include "call.hpp"

#include "function.hpp"

#include <algorithm>

namespace corvane::py {

namespace {
/// Calls with the arguments as the interpreter wants them: all values in a row, then the names of the last of them.
template <typename Function>
object call(location at, Function* function, handle target, handle self, std::initializer_list<argument> arguments) {
    constexpr std::size_t most = 24; // of any call of ours
    if (arguments.size() > most)
        throw_error(PyExc_SystemError, "too many arguments", at);
    // The free place in front lets a bound method put its self there without copying the rest.
    PyObject* values[2 + most];
    std::size_t count = 0;
    if (self)
        values[++count] = self.ptr();
    const auto named =
        std::ranges::count_if(arguments, [](const argument& given) { return static_cast<bool>(given.name); });
    const object names = named > 0 ? check(PyTuple_New(named), at) : object();
    Py_ssize_t next = 0;
    for (const argument& given : arguments) {
        if (given.name)
            PyTuple_SET_ITEM(names.ptr(), next++, Py_NewRef(given.name.ptr()));
        values[++count] = given.value.ptr();
    }
    const std::size_t flagged_count = (count - static_cast<std::size_t>(named)) | PY_VECTORCALL_ARGUMENTS_OFFSET;
    return checked_call(at, function, target.ptr(), static_cast<PyObject* const*>(values + 1), flagged_count,
                        names.ptr());
}
} // namespace

object callee::operator()(std::initializer_list<argument> arguments) const {
    return call(at_, PyObject_Vectorcall, *this, {}, arguments);
}

object detail::call_method(handle self, operand method, std::initializer_list<argument> arguments) {
    return call(method.at, PyObject_VectorcallMethod, method, self, arguments);
}

object find(handle dictionary, handle key, location at) {
    PyObject* value = foreign_call(PyDict_GetItemWithError, dictionary.ptr(), key.ptr());
    if (value == nullptr && PyErr_Occurred() != nullptr)
        throw_error(at);
    return object::borrow(value);
}

void unpack(handle value, std::span<object> targets, location at) {
    object items = object::borrow(value);
    if (!PyTuple_CheckExact(value.ptr()) || PyTuple_GET_SIZE(value.ptr()) != std::ssize(targets))
        items = interpret_statement(targets.size() == 2   ? "unpack_two"_n
                                    : targets.size() == 3 ? "unpack_three"_n
                                                          : "unpack_four"_n,
                                    {value}, at);
    for (std::size_t i = 0; i < targets.size(); ++i)
        targets[i] = object::borrow(PyTuple_GET_ITEM(items.ptr(), static_cast<Py_ssize_t>(i)));
}

object detail::joined(std::span<const object> texts, location at) {
    object row = check(PyTuple_New(std::ssize(texts)), at);
    for (std::size_t i = 0; i < texts.size(); ++i)
        PyTuple_SET_ITEM(row.ptr(), static_cast<Py_ssize_t>(i), Py_NewRef(texts[i].ptr()));
    return check(PyUnicode_Join(""_n.ptr(), row.ptr()), at);
}

namespace {
/// A special method, looked up on the type as the interpreter does; empty where the type has none.
object special_method(handle self, handle name, location at) {
    object found = object::borrow(foreign_call(_PyType_Lookup, Py_TYPE(self.ptr()), name.ptr()));
    descrgetfunc bind = found ? Py_TYPE(found.ptr())->tp_descr_get : nullptr;
    if (bind == nullptr)
        return found;
    return checked_call(at, bind, found.ptr(), self.ptr(), handle(Py_TYPE(self.ptr())).ptr());
}
} // namespace

std::pair<callee, object> enter_context(handle manager, location at) {
    object enter;
    object exit;
    for (const bool exiting : {exit_is_looked_up_first, !exit_is_looked_up_first}) {
        object& method = exiting ? exit : enter;
        method = special_method(manager, exiting ? "__exit__"_n : "__enter__"_n, at);
        if (!method) {
            interpret_statement("enter"_n, {manager}, at);
            throw_error(PyExc_TypeError, "a context manager changed while it was entered", at);
        }
    }
    object value = callee(enter, at)();
    return {callee(exit, at), value};
}

} // namespace corvane::py
