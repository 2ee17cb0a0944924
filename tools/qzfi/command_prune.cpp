// qzfi prune: removes the images that a policy does not keep, and further ones where space is short.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <linux/magic.h>
#include <set>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/done.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/places.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/prune_policy.h"
#include "tools/qzfi/removing.h"
#include "tools/qzfi/stores.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

constexpr uint32_t most_kept = 1000000000;

struct Options {
    PrunePolicy policy;
    std::optional<double> keep_free;
    std::string store, object;
    bool dry_run = false, yes = false, json = false;
};

// What is kept or goes as one: an image, or the images of a set.
struct Unit {
    qfi_time_t time = {};
    std::string host, store; // by which it is removed; empty for the known ones
    std::set<std::string> objects, stores;
    std::vector<std::string> images; // that were found
    SetGaps gaps;                    // with any, nothing is decided about those
    uint32_t state = 1;              // of the worst of its images
    bool is_removed = false, was_for_space = false;
};

struct Plan {
    std::vector<Unit> units; // as long as both others
    std::vector<PruneCandidate> candidates;
    std::vector<PruneDecision> decisions;
    std::set<std::string> stores; // that were looked into
};

struct StoreGoal {
    std::string path;
    double free_percent = 0;
    bool is_reached = false;
};

void add_to(Unit &unit, const qfi_image &image) {
    unit.objects.insert(image.objects, image.objects + image.object_count);
    unit.stores.insert(image.store);
    if (std::find(unit.images.begin(), unit.images.end(), image.image_id) == unit.images.end())
        unit.images.emplace_back(image.image_id);
    unit.state = std::max(unit.state, image.state);
}

std::string group_of(const Unit &unit) {
    std::string group = unit.host + '\0';
    for (const std::set<std::string> *const paths : {&unit.objects, &unit.stores}) {
        for (const std::string &path : *paths)
            group += path + '\0';
        group += '\0';
    }
    return group;
}

// A set may lie in other stores than the one to look into too: it is kept or goes with its images there, but never in
// part.
void complete(Plan &plan, const std::vector<std::string> &sets, const qfi_image_list *images, const Options &options) {
    ImageList known;
    for (std::size_t index = 0; index < plan.units.size(); ++index) {
        Unit &unit = plan.units[index];
        unit.gaps = gaps_of_set(images, sets[index]);
        if (unit.gaps.missing.empty())
            continue;
        plan.candidates[index].id = sets[index];
        if (options.store.empty())
            continue;
        if (!known)
            known = all_images("");
        bool is_known = false;
        for (const qfi_image_list *node = known.get(); node != nullptr; node = node->next)
            if (sets[index] == node->image.set_id) {
                is_known = true;
                add_to(unit, node->image);
            }
        if (!is_known)
            continue;
        unit.gaps = gaps_of_set(known.get(), sets[index]);
        unit.store.clear();
    }
}

Plan plan_of(const qfi_image_list *const images, const Options &options) {
    Plan plan;
    std::vector<std::string> sets;
    for (const qfi_image_list *node = images; node != nullptr; node = node->next) {
        const qfi_image &image = node->image;
        const auto place = std::find(sets.begin(), sets.end(), image.set_id) - sets.begin();
        const auto index = static_cast<std::size_t>(place);
        if (index == sets.size()) {
            sets.emplace_back(image.set_id);
            plan.candidates.push_back({image.image_id, "", unix_seconds(image.time), image.time.qzfi_nsec, true});
            Unit &unit = plan.units.emplace_back();
            unit.time = image.time;
            unit.host = image.host;
            unit.store = options.store;
        } else {
            plan.candidates[index].id = image.set_id;
        }
        plan.stores.insert(image.store);
        add_to(plan.units[index], image);
    }
    complete(plan, sets, images, options);
    for (std::size_t index = plan.units.size(); index-- > 0;) {
        const Unit &unit = plan.units[index];
        plan.candidates[index].group = group_of(unit);
        plan.candidates[index].is_complete = unit.state == 1 && unit.gaps.empty();
        if (options.object.empty() || unit.objects.count(options.object) > 0)
            continue;
        plan.units.erase(plan.units.begin() + static_cast<std::ptrdiff_t>(index));
        plan.candidates.erase(plan.candidates.begin() + static_cast<std::ptrdiff_t>(index));
    }
    plan.decisions = decide(plan.candidates, options.policy);
    return plan;
}

double free_percent(const std::string &path) {
    const Store store = usable_store(path);
    return store.capacity == 0 ? 0 : 100.0 * static_cast<double>(store.available) / static_cast<double>(store.capacity);
}

// Btrfs frees a removed snapshot later: what it holds is no reason to remove the next one.
bool frees_later(const std::string &path) {
    struct statfs status = {};
    return statfs(path.c_str(), &status) == 0 && status.f_type == BTRFS_SUPER_MAGIC;
}

void sync_filesystem(const std::string &path) {
    const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0)
        return; // then only the wait is left
    (void)syncfs(directory);
    close(directory);
}

// Looks until enough is free, or nothing has been freed for two seconds where that takes its time.
void look_at(StoreGoal &goal, double wanted) {
    const bool may_grow = frees_later(goal.path);
    int patience = 20;
    for (;;) {
        const double present = free_percent(goal.path);
        patience = present > goal.free_percent ? 20 : patience - 1;
        goal.free_percent = present;
        goal.is_reached = present >= wanted;
        if (goal.is_reached || !may_grow || patience <= 0)
            return;
        sync_filesystem(goal.path);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        check_interrupted("prune store " + goal.path);
    }
}

std::vector<StoreGoal> goals_of(const Plan &plan, const Options &options) {
    std::set<std::string> paths;
    if (options.keep_free)
        for (const Unit &unit : plan.units)
            std::set_intersection(unit.stores.begin(), unit.stores.end(), plan.stores.begin(), plan.stores.end(),
                                  std::inserter(paths, paths.end()));
    std::vector<StoreGoal> goals;
    for (const std::string &path : paths) {
        const double present = free_percent(path);
        goals.push_back({path, present, present >= *options.keep_free});
    }
    return goals;
}

// Where an image may have to go for space, should the removal of others not suffice.
bool may_go(const Unit &unit, const std::vector<StoreGoal> &goals) {
    return std::any_of(goals.begin(), goals.end(),
                       [&](const StoreGoal &goal) { return !goal.is_reached && unit.stores.count(goal.path) > 0; });
}

std::string reason_text(const PruneDecision &decision, const Unit &unit, bool has_rule, bool is_spare,
                        bool is_all_known) {
    if (!unit.gaps.missing.empty())
        return "not there of its set: " + joined(unit.gaps.missing) +
               (is_all_known ? "; see qzfi rm" : "; mount its store, or see qzfi rm");
    if (!unit.gaps.unreadable.empty())
        return "id document cannot be read: " + joined(unit.gaps.unreadable) + "; see qzfi rm";
    if (decision.action == PruneAction::leave)
        return std::string(state_name(unit.state)) + ", see qzfi rm";
    if (decision.action == PruneAction::remove)
        return "no rule keeps it";
    std::vector<std::string> reasons = decision.reasons;
    if (!has_rule)
        reasons.emplace_back(decision.is_newest ? "the newest" : is_spare ? "no rule removes it" : "enough is free");
    return joined(reasons) + (is_spare ? "; may go for space" : "");
}

const char *action_name(PruneAction action) {
    return action == PruneAction::keep ? "keep" : action == PruneAction::remove ? "remove" : "leave";
}

void print_plan(const Plan &plan, const std::vector<std::size_t> &spares, bool has_rule, bool is_all_known) {
    const bool has_hosts =
        std::any_of(plan.units.begin(), plan.units.end(), [](const Unit &unit) { return unit.host != this_host(); });
    std::vector<Column> columns = {
        {"ID"}, {"TIME"}, {"ACTION"}, {"REASON", Align::left, false, true}, {"OBJECTS", Align::left, false, true}};
    if (has_hosts)
        columns.insert(columns.end() - 1, {"HOST", Align::left, false, true});
    Table table(columns);
    for (std::size_t index = 0; index < plan.units.size(); ++index) {
        const Unit &unit = plan.units[index];
        const PruneDecision &decision = plan.decisions[index];
        const bool is_spare = std::find(spares.begin(), spares.end(), index) != spares.end();
        std::vector<std::string> cells = {plan.candidates[index].id, time_text(unit.time), action_name(decision.action),
                                          reason_text(decision, unit, has_rule, is_spare, is_all_known),
                                          printable(joined({unit.objects.begin(), unit.objects.end()}))};
        if (has_hosts)
            cells.insert(cells.end() - 1, printable(unit.host));
        table.add(std::move(cells));
    }
    table.print();
}

Json json_of(const Plan &plan, const std::vector<StoreGoal> &goals, const std::vector<Store> &unusable,
             const std::vector<std::size_t> &spares, const Options &options, bool was_interrupted) {
    const auto texts = [](const auto &range) {
        Json list = Json::array();
        for (const std::string &text : range)
            list.push_back(json_text(text));
        return list;
    };
    Json images = Json::array(), stores = Json::array();
    for (std::size_t index = 0; index < plan.units.size(); ++index) {
        const Unit &unit = plan.units[index];
        images.push_back({{"id", plan.candidates[index].id},
                          {"time", time_json(unit.time)},
                          {"state", state_name(unit.state)},
                          {"objects", texts(unit.objects)},
                          {"stores", texts(unit.stores)},
                          {"host", json_text(unit.host)},
                          {"missing", texts(unit.gaps.missing)},
                          {"unreadable", texts(unit.gaps.unreadable)},
                          {"action", action_name(plan.decisions[index].action)},
                          {"reasons", texts(plan.decisions[index].reasons)},
                          {"removed", unit.is_removed},
                          {"may_go_for_space", std::find(spares.begin(), spares.end(), index) != spares.end()},
                          {"for_space", unit.was_for_space}});
    }
    for (const StoreGoal &goal : goals)
        stores.push_back({{"path", json_text(goal.path)},
                          {"wanted_percent", *options.keep_free},
                          {"free_percent", goal.free_percent},
                          {"reached", goal.is_reached}});
    return {{"dry_run", options.dry_run},
            {"interrupted", was_interrupted},
            {"images", std::move(images)},
            {"stores", std::move(stores)},
            {"unusable", qzfi::tool::json_of(unusable)}};
}

// False when it could not be removed, which is told.
bool remove(Plan &plan, std::size_t index, const Settings &settings, const Options &options, int &code) {
    const int failed =
        remove_image({plan.candidates[index].id, plan.units[index].store}, settings, {!options.json, true});
    plan.units[index].is_removed = failed == exit_done;
    code = std::max(code, failed);
    return failed == exit_done;
}

void make_space(Plan &plan, StoreGoal &goal, const Settings &settings, const Options &options, int &code) {
    look_at(goal, *options.keep_free);
    for (const std::size_t index : spare(plan.candidates, plan.decisions)) {
        if (goal.is_reached)
            return;
        Unit &unit = plan.units[index];
        if (unit.is_removed || unit.stores.count(goal.path) == 0 || !remove(plan, index, settings, options, code))
            continue;
        unit.was_for_space = true;
        look_at(goal, *options.keep_free);
    }
}

std::string percent_text(double percent) {
    const auto tenths = static_cast<uint64_t>(std::floor(percent * 10)); // never more than there is
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + "%";
}

std::string question(uint64_t count, std::size_t spare_count, const Options &options) {
    std::string text = "Remove " + counted(count, "image", "images");
    if (spare_count > 0)
        text += ", and as many as needed of the oldest of " + std::to_string(spare_count) + " more, until " +
                percent_text(*options.keep_free) + " are free";
    return text + "?";
}

std::vector<std::size_t> spares_of(const Plan &plan, const std::vector<StoreGoal> &goals) {
    std::vector<std::size_t> spares = spare(plan.candidates, plan.decisions);
    std::erase_if(spares, [&](std::size_t index) { return !may_go(plan.units[index], goals); });
    return spares;
}

void require_options(const Options &options) {
    if (!options.policy.has_rule() && !options.keep_free)
        throw Failure("prune: say what to keep, by --keep-last, --keep-daily, --keep-weekly, --keep-monthly or "
                      "--keep-free",
                      exit_usage);
    // As a variable that came out as 0 would have it.
    if (options.policy.has_rule() && !options.policy.keeps_any())
        throw Failure("prune: rules of 0 keep nothing; what is to go is named to `qzfi rm`", exit_usage);
}

// What was not reached, though nothing more could go.
int tell_goals(const Plan &plan, const std::vector<StoreGoal> &goals, const Options &options) {
    int code = exit_done;
    for (const StoreGoal &goal : goals) {
        if (goal.is_reached)
            continue;
        bool has_left = false;
        for (std::size_t index = 0; index < plan.units.size(); ++index)
            has_left = has_left || (plan.decisions[index].action == PruneAction::leave &&
                                    plan.units[index].stores.count(goal.path) > 0);
        tell(Failure("prune store " + goal.path + ": " + percent_text(goal.free_percent) + " are free, and " +
                     percent_text(*options.keep_free) +
                     " were wanted; what is there still is the newest image of each object, or could not be removed" +
                     (has_left ? ", or nothing is decided about it: leave" : "")));
        code = exit_failed;
    }
    return code;
}

// They stay for ever otherwise, as when a disk with the rest of their sets is lost.
void tell_left(const Plan &plan) {
    constexpr std::size_t most = 8;
    std::vector<std::string> images;
    for (std::size_t index = 0; index < plan.units.size(); ++index)
        if (plan.decisions[index].action == PruneAction::leave)
            images.insert(images.end(), plan.units[index].images.begin(), plan.units[index].images.end());
    if (images.empty())
        return;
    std::cerr << counted(images.size(), "image", "images") << " left, which only `qzfi rm` removes:";
    for (std::size_t index = 0; index < std::min(most, images.size()); ++index)
        std::cerr << ' ' << images[index];
    std::cerr << (images.size() > most ? " ...\n" : "\n");
}

void carry_out(Plan &plan, std::vector<StoreGoal> &goals, const Settings &settings, const Options &options, int &code) {
    for (std::size_t index = 0; index < plan.units.size(); ++index)
        if (plan.decisions[index].action == PruneAction::remove)
            remove(plan, index, settings, options, code);
    for (StoreGoal &goal : goals)
        make_space(plan, goal, settings, options, code);
    code = std::max(code, tell_goals(plan, goals, options));
}

int run(const Settings &settings, const Options &given) {
    require_options(given);
    Options options = given;
    if (!given.object.empty())
        options.object = resolved_path(given.object); // it may be gone
    const Session session(settings);
    Plan plan = plan_of(all_images(options.store).get(), options);
    const std::vector<Store> unusable = passed_over(options.store);
    std::vector<StoreGoal> goals = goals_of(plan, options);
    const std::vector<std::size_t> spares = spares_of(plan, goals);
    if (!options.json && !plan.units.empty())
        print_plan(plan, spares, options.policy.has_rule(), unusable.empty());
    else if (!options.json && !settings.quiet && unusable.empty())
        std::cerr << "no images" << (options.object.empty() ? "" : " of " + printable(options.object)) << '\n';
    if (!options.json && !settings.quiet)
        tell_left(plan);
    const auto count =
        static_cast<uint64_t>(std::count_if(plan.decisions.begin(), plan.decisions.end(), [](const auto &decision) {
            return decision.action == PruneAction::remove;
        }));
    int code = tell_unusable(unusable);
    if (!options.dry_run) {
        if (count + spares.size() > 0 && !confirm(question(count, spares.size(), options), options.yes))
            throw Failure((options.store.empty() ? "prune the known stores" : "prune store " + options.store) +
                          ": not confirmed, nothing was removed");
        try {
            const Interruptible interruptible;
            carry_out(plan, goals, settings, options, code);
        } catch (const Failure &failure) {
            // What was removed before is gone all the same.
            if (options.json)
                print(json_of(plan, goals, unusable, spares, options, failure.code() == exit_interrupted));
            throw;
        }
    } else if (!settings.quiet) {
        for (const StoreGoal &goal : goals)
            if (!goal.is_reached)
                std::cerr << "store " << printable(goal.path) << ": " << percent_text(goal.free_percent)
                          << " are free now; what a removal frees cannot be told beforehand\n";
    }
    if (options.json)
        print(json_of(plan, goals, unusable, spares, options, false));
    if (!options.dry_run)
        tell_unheard("prune: removed: " +
                     std::to_string(std::count_if(plan.units.begin(), plan.units.end(),
                                                  [](const Unit &unit) { return unit.is_removed; })));
    return code;
}

} // namespace

void add_prune(CommandLine &line) {
    add_command<
        Options>(line, "prune", "Remove the images that no rule keeps", run, [](Arguments &command, Options &options) {
        command.footer(
            "The rules count within one host's images of the same objects in the same store; what one of them "
            "keeps stays. Days, ISO weeks and months are those of the local time zone. With --keep-free the oldest of "
            "what the rules keep go too, until enough is free, but never the newest image of its objects. Damaged "
            "images, and sets of which an image is not there, neither count nor go.");
        const auto add_rule = [&](const char *name, std::optional<uint32_t> &count, const char *description) {
            command.add_option(name, count, description).type_name("N").within(0u, most_kept);
        };
        add_rule("--keep-last", options.policy.last, "Keep the newest N");
        add_rule("--keep-daily", options.policy.daily, "Keep the newest of each of N days");
        add_rule("--keep-weekly", options.policy.weekly, "Keep the newest of each of N weeks");
        add_rule("--keep-monthly", options.policy.monthly, "Keep the newest of each of N months");
        command.add_option("--keep-free", options.keep_free, "Keep so many percent of the store's file system free")
            .type_name("PCT")
            .within(0.0, 100.0);
        add_store(command, options.store, "Only images of this store");
        command.add_option("--object", options.object, "Only images of this directory").type_name("PATH").not_empty();
        command.add_flag("--dry-run", options.dry_run, "Only list what would be removed, and why the rest stays");
        add_yes(command, options.yes);
        add_json(command, options.json);
    });
}

} // namespace qzfi::tool
