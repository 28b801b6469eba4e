// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <tuple>
#include <type_traits>
#include <utility>

#include "commands/catalogue.h"
#include "values.h"

namespace jovu_python {

namespace {

/// Stands for the result of a command without one.
struct Nothing {};

template <auto method>
class Prepared final : public PreparedCommand {
public:
    using Row = jovu::CommandRow<method>;
    using Result =
        std::conditional_t<std::is_void_v<typename Row::Result>, Nothing, typename Row::Result>;

    explicit Prepared(const py::tuple& arguments) {
        load_all(arguments, std::make_index_sequence<Row::kArguments>());
    }

    void run(JovuCommandInterface& commands, JovuDeviceAddress device) override {
        std::apply(
            [&](const auto&... argument) {
                if constexpr (std::is_void_v<typename Row::Result>) {
                    (commands.*method)(device, argument...);
                } else {
                    result_ = (commands.*method)(device, argument...);
                }
            },
            arguments_);
    }

    py::object result() const override {
        if constexpr (std::is_void_v<typename Row::Result>) {
            return py::none();
        } else {
            return store(result_);
        }
    }

private:
    template <std::size_t... index>
    void load_all(const py::tuple& arguments, std::index_sequence<index...> /*indices*/) {
        (load(arguments[index], Place{nullptr, jovu::row<method>.keys[index]},
              std::get<index>(arguments_)),
         ...);
    }

    typename Row::Arguments arguments_{};
    Result result_{};
};

template <auto method>
py::list describe_arguments() {
    py::list described;
    std::apply([&](auto... argument) { (described.append(describe<decltype(argument)>()), ...); },
               typename jovu::CommandRow<method>::Arguments{});
    return described;
}

template <auto method>
Command command(const jovu::CommandRow<method>& row) {
    std::vector<const char*> keys;
    for (const std::string_view key : row.keys)
        keys.push_back(key.data());  // literals
    return {row.name.data(),
            row.summary.data(),
            std::move(keys),
            &describe_arguments<method>,
            &describe<typename jovu::CommandRow<method>::Result>,
            [](const py::tuple& arguments) -> std::unique_ptr<PreparedCommand> {
                return std::make_unique<Prepared<method>>(arguments);
            }};
}

}  // namespace

const std::vector<Command>& commands() {
    static const auto all = std::apply(
        [](const auto&... row) { return std::vector<Command>{command(row)...}; }, jovu::catalogue);
    return all;
}

}  // namespace jovu_python
