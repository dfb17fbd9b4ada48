// Everything a host needs: include this one header and link libsonorell.
#pragma once

#include "sonorell/chapter_description.h"
#include "sonorell/download_engine.h"
#include "sonorell/download_request.h"
#include "sonorell/error.h"
#include "sonorell/errors.h"
#include "sonorell/facade.h"
#include "sonorell/log_engine.h"
#include "sonorell/notification_center.h"
#include "sonorell/notification_poster.h"
#include "sonorell/notifications.h"
#include "sonorell/playback_engine.h"
#include "sonorell/utils.h"
#include "sonorell/value.h"
#include "sonorell/version.h"
