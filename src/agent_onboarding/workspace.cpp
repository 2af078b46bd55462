// The agent's workspace files: the checklist and the nudges in HEARTBEAT.md, and the fragment for AGENTS.md.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

// Farther up lies what has nothing to do with the agent: a home directory, another project.
constexpr int directories_searched = 4; // the start and three parents

/// `with open(path, "r", encoding="utf-8") as file: content = file.read()`; empty if the file swallows an exception.
object read_text(const frame& in, handle path) {
    object content;
    with(in, global("open"_n)(path, "r"_n, "encoding"_a = "utf-8"_n),
         [&](handle file) { content = invoke(file, "read"_n); });
    return content;
}

/// `with open(path, "w", encoding="utf-8") as file: file.write(content)`
void rewrite_text(const frame& in, handle path, handle content) {
    with(in, global("open"_n)(path, "w"_n, "encoding"_a = "utf-8"_n),
         [&](handle file) { invoke(file, "write"_n, content); });
}

/// The option that lets a caller keep the module out of HEARTBEAT.md.
bool opted_out() { return !is_true(get(global("_config"_n), "auto_heartbeat"_n, true_value())); }

bool ends_with_line_feed(handle content) { return is_true(invoke(content, "endswith"_n, "\n"_n)); }

/// Appends the line unless the file of the current workspace has it already.
void append_nudge(const frame& in, handle nudge_text) {
    object path = global("_find_heartbeat"_n)();
    if (path.is_none())
        return;
    object content = read_text(in, path);
    // The whole line is the mark, so that each trigger adds its line once, and again after somebody removed it.
    if (contains(local(content, "content"), nudge_text))
        return;
    if (!ends_with_line_feed(content))
        content = add(content, "\n"_n);
    rewrite_text(in, path, add(add(content, nudge_text), "\n"_n));
}

} // namespace

object find_heartbeat(const frame&, handle working_dir) {
    object current = object::borrow(working_dir);
    if (current.is_none())
        current = global("os"_n).attr("getcwd"_n)();
    for (int i = 0; i < directories_searched; ++i) {
        object path = join_path(current, "HEARTBEAT.md"_n);
        if (path_exists(path))
            return path;
        object parent = global("os"_n).attr("path"_n).attr("dirname"_n)(current);
        // The root is its own parent.
        if (compare(parent, Py_EQ, current))
            return none();
        current = parent;
    }
    return none();
}

object inject_heartbeat(const frame& in, handle working_dir) {
    if (opted_out())
        return none();
    object path = global("_find_heartbeat"_n)(working_dir);
    if (path.is_none())
        return none();
    object content;
    try {
        content = read_text(in, path);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        // Only a warning: the wallet is signed in by now, and no checklist is worth losing that.
        global("logger"_n).attr("warning"_n)("Failed to read HEARTBEAT.md at %s: %s"_n, path, caught.value());
        return none();
    }
    // The heading is the mark: a checklist that somebody has shortened or ticked off is not added again.
    if (contains(local(content, "content"), "## [Corvane]"_n))
        return none();
    if (is_true(content) && !ends_with_line_feed(content))
        content = add(content, "\n"_n);
    content = add(content, "\n"_n);
    content = add(content, global("_HEARTBEAT_STATIC_SECTION"_n));
    try {
        rewrite_text(in, path, content);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        global("logger"_n).attr("warning"_n)("Failed to write HEARTBEAT.md at %s: %s"_n, path, caught.value());
    }
    return none();
}

object update_nudge(const frame& in, handle trigger, handle /*context*/) {
    if (opted_out())
        return none();
    // A trigger of a later kit is nothing to stop a search for.
    if (!contains(global("_NUDGE_TEXTS"_n), trigger))
        return none();
    object nudge_text = get_item(global("_NUDGE_TEXTS"_n), trigger);
    try {
        append_nudge(in, nudge_text);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn("update_nudge failed: %s"_n, caught);
    }
    return none();
}

// Looked up like everything else, so that whoever replaces the text gets the replacement.
object get_agents_md_fragment(const frame&) { return global("_AGENTS_MD_FRAGMENT"_n); }

object heartbeat_static_section() {
    return object::borrow(
        "## [Corvane] Search Monitoring\n"
        "\n"
        "Check these items to stay on top of your signal search:\n"
        "\n"
        "- [ ] **Search status**: Run `corvane.search_status()` \u2014 is the search running? Any errors to address?\n"
        "- [ ] **Discovery rate check**: Run `corvane.get_search_velocity()` \u2014 is your signals-per-hour trending up, "
        "stable, or declining?\n"
        "- [ ] **Suggestions**: Run `corvane.get_suggestions()` \u2014 are there underexplored function families or "
        "high-potential features to focus on?\n"
        "- [ ] **Milestone check**: How many signals have you found? Any new milestones (first signal, 10th signal, "
        "Strategy unlock at 100)?\n"
        "- [ ] **Strategy review**: If discovery rate is declining, consider: restarting with a different template, "
        "increasing n_jobs, or creating a custom template focused on high-potential areas.\n"_n);
}

object nudge_texts() {
    object texts = new_dict();
    set_item(texts, "discovery_rate_declining"_n,
             "- [ ] [Corvane] Search discovery rate has dropped significantly. Run analytics and consider adjusting "
             "your template."_n);
    set_item(
        texts, "era_change"_n,
        "- [ ] [Corvane] New era detected. Your search will pause for re-sync. Check status after sync completes."_n);
    set_item(texts, "first_signal"_n, "- [ ] [Corvane] First signal found! Check status for details."_n);
    set_item(texts, "10_signals"_n,
             "- [ ] [Corvane] 10 signals found. Review analytics to see which functions/features work best."_n);
    set_item(texts, "strategy_unlock"_n,
             "- [ ] [Corvane] Strategy search unlocked! You can now search for Strategies."_n);
    return texts;
}

object agents_md_fragment() {
    return object::borrow("## Corvane Integration\n"
                          "- Skills: Provided via `corvane.list_skills()` (returns bundle SKILL.md paths)\n"
                          "- Tools: register, search, stop, status, analytics (via Python API)\n"
                          "- Heartbeat: Auto-injected monitoring checklist\n"_n);
}

} // namespace corvane::onboarding
