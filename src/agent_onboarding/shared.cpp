// What more than one file of the module writes: tests and look-ups, paths, the kit's authentication, warnings.
#include "module.hpp"

namespace corvane::onboarding {

// A manifest can have 100,000 entries. Where an operation is the builtin one on a plain value, which nobody can see, it
// is done directly; every call that somebody has put in its place, or that goes to another module, is made.

bool is_builtin(handle function, std::string_view wanted, const PyMethodDef*& definition) noexcept {
    if (!PyCFunction_CheckExact(function.ptr()))
        return false;
    const auto* made = reinterpret_cast<PyCFunctionObject*>(function.ptr());
    if (made->m_ml != definition && wanted == made->m_ml->ml_name && made->m_module != nullptr &&
        PyUnicode_CheckExact(made->m_module) && PyUnicode_CompareWithASCIIString(made->m_module, "builtins") == 0)
        definition = made->m_ml;
    return made->m_ml == definition;
}

bool is_instance(handle value, name type, location at) {
    callee test = global("isinstance"_n, at);
    callee class_or_tuple = global(type, at);
    static const PyMethodDef* definition = nullptr;
    if (!is_builtin(test, "isinstance", definition))
        return is_true(test(value, class_or_tuple), at);
    if (handle(Py_TYPE(value.ptr())).is(class_or_tuple))
        return true; // what PyObject_IsInstance looks at first
    return checked_call(at, PyObject_IsInstance, value.ptr(), class_or_tuple.ptr()) != 0;
}

object get(handle mapping, handle key, handle fallback, location at) {
    if (!PyDict_CheckExact(mapping.ptr()))
        return fallback ? invoke(mapping, {"get"_n, at}, key, fallback) : invoke(mapping, {"get"_n, at}, key);
    object value = find(mapping, key, at);
    return value ? value : object::borrow(fallback ? fallback : handle(Py_None));
}

bool path_exists(operand path) {
    const location at = path.at;
    return is_true(global("os"_n, at).attr("path"_n, at).attr("exists"_n, at)(path), at);
}

object join_path(operand directory, handle name) {
    const location at = directory.at;
    return global("os"_n, at).attr("path"_n, at).attr("join"_n, at)(directory, name);
}

object real_path(operand path) {
    const location at = path.at;
    return global("os"_n, at).attr("path"_n, at).attr("realpath"_n, at)(path);
}

object get_attribute(operand self, name attribute, handle fallback) {
    return global("getattr"_n, self.at)(self, attribute, fallback);
}

callee auth(name wanted, location at) { return global("auth"_n, at).attr(wanted, at); }

bool leaves_segment(operand value) {
    const location at = value.at;
    const auto is = [value](handle other) {
        return checked_call(value.at, PyObject_RichCompareBool, other.ptr(), value.ptr(), Py_EQ) != 0;
    };
    return is("."_n) || is(".."_n) || contains(value, "/"_n, at) || contains(value, "\\"_n, at) ||
           contains(value, "\0"_n, at);
}

void warn(name text, const error& caught, location at) {
    global("logger"_n, at).attr("warning"_n, at)(text, caught.value());
}

void raise_for(const error& caught, operand message) {
    raise_from(global("RuntimeError"_n, message.at)(message), caught.value(), message.at);
}

void activate(const frame& in, handle manager, handle strict) {
    try {
        auth("_set_active_auth_manager"_n)(manager);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn("Failed to set active auth manager: %s"_n, caught);
        if (is_true(strict))
            raise_for(caught, "Corvane auth bootstrap failed after authentication."_n);
    }
}

void raise_backtester_missing(location at) {
    callee incomplete = global("RuntimeModuleDownloadIncomplete"_n, at);
    raise(incomplete("Per-era backtester runtime is missing from manifest."_n, "module_name"_a = "backtester"_n), at);
}

} // namespace corvane::onboarding
