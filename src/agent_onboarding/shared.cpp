// What more than one file of the module writes: paths, the kit's authentication, warnings.
#include "module.hpp"

namespace corvane::onboarding {

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
    return is_one_of({value, at}, "."_n, ".."_n) || contains(value, "/"_n, at) || contains(value, "\\"_n, at) ||
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
            raise_for(caught, concat("Corvane auth bootstrap failed after authentication."));
    }
}

void raise_backtester_missing(location at) {
    callee incomplete = global("RuntimeModuleDownloadIncomplete"_n, at);
    raise(incomplete(concat({"Per-era backtester runtime is missing from manifest.", at}),
                     "module_name"_a = "backtester"_n),
          at);
}

} // namespace corvane::onboarding
