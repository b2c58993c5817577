// The virtual channels: measurements that add tags to the stream.

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

void bindCoincidences(py::module_& m) {
  py::enum_<CoincidenceTimestamp>(m, "CoincidenceTimestamp",
                                  "The time stamped on an inserted coincidence tag.")
      .value("Last", CoincidenceTimestamp::Last, "the tag that completed the coincidence")
      .value("Average", CoincidenceTimestamp::Average,
             "the mean of the group's latest tag times, rounded towards zero")
      .value("First", CoincidenceTimestamp::First, "the earliest of the group's latest tag times")
      .value("ListedFirst", CoincidenceTimestamp::ListedFirst,
             "the latest tag time of the group's first listed channel");

  MeasurementClass<Coincidences>(
      m, "Coincidences",
      "Virtual channels for coincidences in several groups of channels at once: a group fires "
      "on each time tag of one of its channels while every channel of the group has had a tag "
      "less than `window` ps ago. Raises ValueError for no groups, an empty group or more than "
      "64 distinct channels.")
      .def(py::init(&make<Coincidences, ZeptickBase, const std::vector<std::vector<int>>&, int64_t,
                          CoincidenceTimestamp>),
           py::arg("tagger"), py::arg("groups"), py::arg("window") = 1000,
           py::arg("timestamp") = CoincidenceTimestamp::Last)
      .def("getChannels", method(&Coincidences::getChannels),
           "The virtual channels, in the order of the groups.")
      .def("setCoincidenceWindow", method(&Coincidences::setCoincidenceWindow), py::arg("window"),
           "Changes the window for tags from the next block on.");

  MeasurementClass<Coincidence>(
      m, "Coincidence", "Coincidences of a single group of channels, on one virtual channel.")
      .def(py::init(&make<Coincidence, ZeptickBase, const std::vector<int>&, int64_t,
                          CoincidenceTimestamp>),
           py::arg("tagger"), py::arg("channels"), py::arg("window") = 1000,
           py::arg("timestamp") = CoincidenceTimestamp::Last)
      .def("getChannel", method(&Coincidence::getChannel), "The virtual channel of the group.")
      .def("setCoincidenceWindow", method<Coincidence>(&Coincidences::setCoincidenceWindow),
           py::arg("window"), "Changes the window for tags from the next block on.");
}

void bindCopies(py::module_& m) {
  MeasurementClass<DelayedChannel>(
      m, "DelayedChannel",
      "Copies the time tags of one or more channels, shifted by `delay` ps, onto a virtual "
      "channel per input. Raises ValueError if a channel is listed twice.")
      .def(py::init(&make<DelayedChannel, ZeptickBase, int, int64_t>), py::arg("tagger"),
           py::arg("input_channel"), py::arg("delay"))
      .def(py::init(&make<DelayedChannel, ZeptickBase, const std::vector<int>&, int64_t>),
           py::arg("tagger"), py::arg("input_channels"), py::arg("delay"))
      .def("setDelay", method(&DelayedChannel::setDelay), py::arg("delay"),
           "Changes the delay for the tags that follow. A channel made with a delay of 0 or "
           "more cannot go negative: raises ValueError.")
      .def("getChannel", method(&DelayedChannel::getChannel),
           "The first virtual channel, or CHANNEL_UNUSED when there is none.")
      .def("getChannels", method(&DelayedChannel::getChannels),
           "The virtual channels, in the order of the inputs.");

  MeasurementClass<GatedChannel>(
      m, "GatedChannel",
      "Copies the time tags of `input_channel` onto a virtual channel while a gate is open: "
      "`gate_start_channel` opens it, `gate_stop_channel` or any non-time tag closes it. "
      "Raises RuntimeError if the start and stop channels are the same.")
      .def(py::init(&make<GatedChannel, ZeptickBase, int, int, int>), py::arg("tagger"),
           py::arg("input_channel"), py::arg("gate_start_channel"), py::arg("gate_stop_channel"))
      .def("getChannel", method(&GatedChannel::getChannel), "The virtual channel.");

  MeasurementClass<Combiner>(
      m, "Combiner",
      "Merges several channels into one virtual channel, counting the tags per entry of the "
      "list.")
      .def(py::init(&make<Combiner, ZeptickBase, const std::vector<int>&>), py::arg("tagger"),
           py::arg("channels"))
      .def("getChannel", method(&Combiner::getChannel), "The virtual channel.")
      .def("getData", array1<int64_t>(&Combiner::getData),
           "int64 tags per entry of the channel list since the last clear.");
}

void bindGenerators(py::module_& m) {
  MeasurementClass<FrequencyMultiplier>(
      m, "FrequencyMultiplier",
      "A virtual channel ticking `multiplier` times as fast as an input channel.")
      .def(py::init(&make<FrequencyMultiplier, ZeptickBase, int, int>), py::arg("tagger"),
           py::arg("input_channel"), py::arg("multiplier"))
      .def("getChannel", method(&FrequencyMultiplier::getChannel), "The virtual channel.")
      .def("getMultiplier", method(&FrequencyMultiplier::getMultiplier),
           "The multiplier in force (1 or more).");

  MeasurementClass<ConstantFractionDiscriminator>(
      m, "ConstantFractionDiscriminator",
      "Turns the two edges of each pulse shorter than `search_window` ps into one tag at its "
      "midpoint. Raises ValueError if search_window < 1 or a channel has no inverted edge.")
      .def(py::init(&make<ConstantFractionDiscriminator, ZeptickBase, std::vector<int>, int64_t>),
           py::arg("tagger"), py::arg("channels"), py::arg("search_window"))
      .def("getChannels", method(&ConstantFractionDiscriminator::getChannels),
           "One virtual channel per entry of `channels`.");

  MeasurementClass<EventGenerator>(
      m, "EventGenerator",
      "Plays a fixed pattern of time offsets (ps) on a virtual channel for every selected "
      "trigger. Raises RuntimeError for a zero divider or an offset not below the divider.")
      .def(py::init(&make<EventGenerator, ZeptickBase, int, std::vector<int64_t>, uint64_t,
                          uint64_t, int>),
           py::arg("tagger"), py::arg("trigger_channel"), py::arg("pattern"),
           py::arg("trigger_divider") = 1, py::arg("divider_offset") = 0,
           py::arg("stop_channel") = CHANNEL_UNUSED)
      .def("getChannel", method(&EventGenerator::getChannel), "The virtual channel.");

  MeasurementClass<AverageChannel>(
      m, "AverageChannel",
      "One virtual channel at the mean time of the latest tags of several inputs. Needs a "
      "hardware tagger; raises RuntimeError on a device with fewer than 36 channels.")
      .def(py::init(&make<AverageChannel, Zeptick, int, std::vector<int>>), py::arg("tagger"),
           py::arg("reference_channel"), py::arg("channels"))
      .def("getChannel", method(&AverageChannel::getChannel), "The virtual channel.");
}

}  // namespace

void bindVirtualChannels(py::module_& m) {
  bindCoincidences(m);
  bindCopies(m);
  bindGenerators(m);
}

}  // namespace zeptick::python
