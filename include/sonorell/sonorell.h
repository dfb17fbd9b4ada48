/// Everything a host needs: include this one header and link libsonorell.
/// Start at QSOSonorell (sonorell/facade.h); the overview page lists the other entry points.
/// @file
#pragma once

#include "sonorell/audio_session.h"
#include "sonorell/audiobook.h"
#include "sonorell/chapter_description.h"
#include "sonorell/download_engine.h"
#include "sonorell/download_report.h"
#include "sonorell/download_request.h"
#include "sonorell/download_status.h"
#include "sonorell/error.h"
#include "sonorell/errors.h"
#include "sonorell/facade.h"
#include "sonorell/listen_event.h"
#include "sonorell/log_engine.h"
#include "sonorell/main_queue.h"
#include "sonorell/notification_center.h"
#include "sonorell/notifications.h"
#include "sonorell/persistence_engine.h"
#include "sonorell/playback_engine.h"
#include "sonorell/predicate.h"
#include "sonorell/unified_log.h"
#include "sonorell/utils.h"
#include "sonorell/value.h"
#include "sonorell/version.h"
