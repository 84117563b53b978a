// The module tovana_embedding._core: what the package in Python stands on. Nothing here is for users.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/unique_ptr.h>
#include <nanobind/stl/vector.h>

#include "conversions.h"
#include "engine.h"
#include "errors.h"
#include "fetch_log.h"
#include "interpreter.h"
#include "logging.h"
#include "tovana/engines/embedding/embedding.h"
#include "tovana/engines/http/ca_certificates.h"

namespace tovana::python {
namespace {

namespace nb = nanobind;
using embedding::EmbeddingStatus;
using embedding::EngineConfiguration;
using embedding::Fallback;

nb::dict engine_config(std::string backend, std::optional<std::string> base_url,
                       std::optional<std::string> embedding_model) {
  Config settings;
  settings.daemon.embedding_backend = std::move(backend);
  settings.generation = {.base_url = std::move(base_url),
                         .embedding_model = std::move(embedding_model)};
  return python_configuration(embedding::engine_config(settings));
}

std::string describe(std::string state, std::optional<std::string> backend,
                     std::optional<std::string> detail, std::optional<double> loading_s,
                     std::optional<double> retry_in_s) {
  return EmbeddingStatus{std::move(state), std::move(backend), std::move(detail), loading_s,
                         retry_in_s}
      .describe();
}

const char* cause_name(Fallback::Cause cause) {
  switch (cause) {
    case Fallback::Cause::not_configured:
      return "not_configured";
    case Fallback::Cause::library_not_installed:
      return "library_not_installed";
    case Fallback::Cause::local_backend_failed:
      break;
  }
  return "local_backend_failed";
}

nb::object fallback(Engine& engine) {
  const std::optional<Fallback> taken = engine.fallback();
  if (!taken) return nb::none();
  return nb::make_tuple(cause_name(taken->cause), python_text(taken->reason));
}

void set_precision(const std::string& name) {
  const std::optional<embedding::Precision> precision = embedding::precision_named(name);
  if (!precision) throw ValueError("precision is 'float32' or 'bfloat16', not '" + name + "'");
  embedding::EMBED_PRECISION.request(*precision);
}

nb::object get_precision() {
  const std::optional<embedding::Precision> used = embedding::EMBED_PRECISION.used();
  return used ? python_text(embedding::precision_name(*used)) : nb::object(nb::none());
}

/// Their texts by name, and the name of the default or None.
nb::tuple prompts(Engine& engine, double wait_s) {
  const embedding::ModelPrompts prompts = engine.prompts(wait_s);
  nb::dict texts;
  for (const auto& [name, text] : prompts.texts) texts[python_text(name)] = python_text(text);
  return nb::make_tuple(
      texts, prompts.default_name ? python_text(*prompts.default_name) : nb::object(nb::none()));
}

void bind_engine(nb::module_& core) {
  nb::class_<Engine>(core, "Engine")
      .def("__init__",
           [](Engine* self, const nb::dict& configuration) {
             new (self) Engine(configuration_of(configuration));
           })
      .def_static("acquire",
                  [](const nb::dict& configuration) {
                    return Engine::acquire(configuration_of(configuration));
                  })
      .def("release", &Engine::release)
      .def_prop_ro(
          "identity",
          [](const Engine& self) { return reinterpret_cast<std::uintptr_t>(self.identity()); })
      .def("status", [](Engine& self) { return python_status(self.status()); })
      .def("fallback", fallback)
      .def("warm_up_async", &Engine::warm_up_async)
      .def("close", &Engine::close)
      .def("wait_ready",
           [](Engine& self, double wait_s) {
             self.wait_ready(wait_s, CallLimits(wait_s, nb::none()));
           })
      .def("dimension",
           [](Engine& self, double wait_s) {
             return self.wait_ready(wait_s, CallLimits(wait_s, nb::none()))->dimension();
           })
      .def("backend_name",
           [](Engine& self, double wait_s) {
             return python_text(self.wait_ready(wait_s, CallLimits(wait_s, nb::none()))->name());
           })
      .def(
          "embed",
          [](Engine& self, const nb::tuple& texts, double wait_s, double timeout,
             nb::object should_stop, bool single_precision, const nb::handle prompt_name,
             const nb::handle prompt, bool count_tokens) {
            const CallLimits limits(timeout, std::move(should_stop));
            std::vector<std::uint32_t> counts;
            nb::object vectors = self.embed(
                texts,
                {.prompt_name = optional_text_of(prompt_name), .prompt = optional_text_of(prompt)},
                wait_s, limits, single_precision, count_tokens ? &counts : nullptr);
            return std::pair(std::move(vectors), std::move(counts));
          },
          nb::arg("texts"), nb::arg("wait_s"), nb::arg("timeout"), nb::arg("should_stop").none(),
          nb::arg("single_precision"), nb::arg("prompt_name").none(), nb::arg("prompt").none(),
          nb::arg("count_tokens"))
      .def("prompts", prompts)
      .def("check_backend_migration", &Engine::check_backend_migration);
}

}  // namespace
}  // namespace tovana::python

NB_MODULE(_core, core) {
  using namespace tovana::python;
  // What is left at exit is left on purpose: threads may be using it.
  nanobind::set_leak_warnings(false);
  translate_errors();
  bind_engine(core);
  core.def("engine_config", &engine_config, nanobind::arg("backend"),
           nanobind::arg("base_url").none(), nanobind::arg("embedding_model").none());
  core.def("describe", &describe, nanobind::arg("state"), nanobind::arg("backend").none(),
           nanobind::arg("detail").none(), nanobind::arg("loading_s").none(),
           nanobind::arg("retry_in_s").none());
  core.def("set_precision", &set_precision);
  core.def("get_precision", &get_precision);
  core.def("set_last_ca_file", &tovana::http::set_last_ca_file);
  core.def("send_records_to", &send_records_to);
  core.def("interpreter_ends", &interpreter_ends);
  core.def("interpreter_was_forked", &interpreter_was_forked);
  log_fetches();
}
