#pragma once

// The camera layer: the concrete quantity types of a Timepix3 camera read out at 640 MHz, and the library's
// templates instantiated with them. Everything the tool and its companions use comes from here.

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/EventFile_Writer.hpp"
#include "kovra/FileHandler_Events.hpp"
#include "kovra/FileHandler_PhotonEvents.hpp"
#include "kovra/PhotonEventChain.hpp"
#include "kovra/PhotonSource.hpp"
#include "kovra/PulseShapeDiscrimination.hpp"
#include "kovra/Quantities.hpp"
#include "kovra/Reconstruction_Events.hpp"
#include "kovra/Reconstruction_Switch.hpp"

namespace kovra::tpx3spidr {

static_assert(sizeof(long) == 8, "the time type needs a 64-bit long");

/// Position in 1/65536 pixel.
using Length = kovra::Length<int, 65536>;
/// Time in ticks of 1.5625 ns (640 MHz).
using Time = kovra::Time<long, 1.5625e-9>;
using PSD = kovra::PSD_Parameter_SumTimeDistToFirst;

using PhotonEvent = kovra::PhotonEvent<Length, Time>;
using Event = kovra::Event<Length, Time, PSD>;
using Data_PhotonEvents = kovra::Data_PhotonEvents<PhotonEvent>;
using Data_Events = kovra::Data_Events<Event>;
using PhotonEventChain = kovra::PhotonEventChain<Length, Time, PSD>;
using Reconstruction_Events = kovra::Reconstruction_Events<Length, Time, PSD>;

/// Photon files (".kovraphot") and event files (".kovraevent").
using FileHandler_PhotonEvents = kovra::FileHandler_PhotonEvents<Length, Time, 4, 8, 2>;
using FileHandler_Events = kovra::FileHandler_Events<Length, Time, PSD, 4, 8, 3>;

/// Streaming: photons from a file or a list, events to a file as they are found.
using PhotonSource = kovra::PhotonSource<PhotonEvent>;
using PhotonSource_File = kovra::PhotonSource_File<PhotonEvent>;
using PhotonSource_Memory = kovra::PhotonSource_Memory<PhotonEvent>;
using EventFile_Writer = kovra::EventFile_Writer<Event, Time>;

/// The maximum event duration in ticks (see kovra::convert_durationMax).
inline Time convert_durationMax(double durationMax_s) { return kovra::convert_durationMax<Time>(durationMax_s); }

static_assert(sizeof(PhotonEvent) == 16, "a photon must stay 16 bytes");
static_assert(sizeof(Event) == 32, "an event must stay 32 bytes");

}  // namespace kovra::tpx3spidr
