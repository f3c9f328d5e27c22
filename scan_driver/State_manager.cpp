// State_manager: power, sleep and streaming decisions.
#include "State_manager.h"

#include <algorithm>

#include "IStream_driver.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Sensor_trait.h"

using namespace Synchroniztion_internal;

#define STATE_LABEL "jni/../State_manager"

namespace {

// Longest wait for the stream to stop before the engine sleeps or goes off.
constexpr unsigned int stop_wait_ms = 2000;

} // namespace

uint64_t State_manager::g_msSleepTimeout = 0;

// ---------------------------------------------------------------------------
// The logical lock
// ---------------------------------------------------------------------------

State_manager::lock::lock(State_manager* _p_state_manager) : p_state_manager(_p_state_manager)
{
    SD_ASSERT(_p_state_manager->owns(), "_p_state_manager->owns()", STATE_LABEL, 259);
    while (!_p_state_manager->unlocked) {
        // Only a caller outside the monitor gets false from an unbounded
        // wait (reported by the monitor); it must not spin.
        if (!_p_state_manager->wait(_p_state_manager->unlock_condition, MT_INFINITE))
            break;
    }
    _p_state_manager->unlocked = false;
}

State_manager::lock::~lock()
{
    SD_ASSERT(p_state_manager->owns(), "p_state_manager->owns()", STATE_LABEL, 279);
    SD_ASSERT(!p_state_manager->unlocked, "!p_state_manager->unlocked", STATE_LABEL, 280);
    p_state_manager->unlocked = true;
    p_state_manager->notify();
}

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

State_manager::State_manager() : State_manager(the_scan_driver->sensor) {}

State_manager::State_manager(Sensor volatile* sensor)
    : Forward_monitor<State_manager>(*sensor),
      unlock_condition(this, &State_manager::is_unlocked),
      sleep_timeout(g_msSleepTimeout)
{
}

State_manager::~State_manager()
{
    auto monitor = get_lock();
    sleep_alarm.cancel();
}

// ---------------------------------------------------------------------------
// Predicates and getters
// ---------------------------------------------------------------------------

bool State_manager::should_power_up() const
{
    return power_wanted && open_count > 0;
}

bool State_manager::should_stream_images() const
{
    return scanning_count > 0;
}

bool State_manager::is_idle() const
{
    return power == POWER_ON && !should_stream_images() && nosleep_count == 0 && !streaming;
}

bool State_manager::is_unlocked() const
{
    return unlocked;
}

bool State_manager::get_power_state() const
{
    lock guard(const_cast<State_manager*>(this));
    return power_wanted;
}

uint64_t State_manager::get_sleep_timeout() const
{
    lock guard(const_cast<State_manager*>(this));
    return sleep_timeout;
}

// ---------------------------------------------------------------------------
// Counts and wishes
// ---------------------------------------------------------------------------

bool State_manager::increment_open_count()
{
    lock guard(this);
    if (open_count > 0) {
        ++open_count;
        return true;
    }
    const bool opened = the_scan_driver->trait->open_session();
    if (opened) {
        open_count = 1;
        sleep_timeout = g_msSleepTimeout;
        power_up_check();
    }
    return opened;
}

void State_manager::decrement_open_count(bool close)
{
    lock guard(this);
    SD_ASSERT(open_count > 0, "open_count > 0", STATE_LABEL, 55);
    if (open_count == 0)
        return;
    if (--open_count == 0) {
        power_up_check();
        if (close)
            the_scan_driver->trait->close_session();
    }
}

bool State_manager::increment_scanning_count(_tagVQX_SCANNER_LIGHTING& new_lights,
                                             Exposure_settings& new_exposure, bool flag)
{
    lock guard(this);
    ++scanning_count;
    lights = new_lights;
    exposure = new_exposure;
    start_flag = flag;
    return power_up_check();
}

void State_manager::decrement_scanning_count(bool wait)
{
    lock guard(this);
    SD_ASSERT(scanning_count > 0, "scanning_count > 0", STATE_LABEL, 83);
    if (scanning_count == 0)
        return;
    if (--scanning_count == 0) {
        power_up_check();
        if (wait)
            the_scan_driver->stream_driver->wait_for_stop_scanning(stop_wait_ms);
    }
}

void State_manager::set_power_state(bool on)
{
    lock guard(this);
    if (on != power_wanted)
        silent_trace("set_power_state(%u)", static_cast<unsigned>(on));
    power_wanted = on;
    power_up_check();
}

void State_manager::disable_sleep()
{
    lock guard(this);
    if (nosleep_count++ == 0)
        power_up_check();
}

void State_manager::enable_sleep()
{
    lock guard(this);
    SD_ASSERT(nosleep_count > 0, "nosleep_count > 0", STATE_LABEL, 141);
    if (nosleep_count == 0)
        return;
    if (--nosleep_count == 0)
        power_up_check();
}

void State_manager::set_sleep_timeout(unsigned long ms)
{
    lock guard(this);
    if (ms == sleep_timeout)
        return;
    cancel_sleep();
    sleep_timeout = ms;
    if (ms == 0) {
        if (power != POWER_ON && should_power_up()) {
            the_scan_driver->trait->power_on();
            set_power(POWER_ON);
        }
    } else if (idle_since != 0 && is_idle()) {
        schedule_sleep(ms);
    }
}

// ---------------------------------------------------------------------------
// Transitions
// ---------------------------------------------------------------------------

bool State_manager::power_up_check()
{
    SD_ASSERT(monitor_base().owns(), "sensor.owns()", STATE_LABEL, 172);
    Scan_driver& driver = *the_scan_driver;
    const bool up = should_power_up();

    if ((!up || !should_stream_images()) && streaming) {
        driver.stream_driver->stop_scanning();
        streaming = false;
    }

    if (!up) {
        if (power == POWER_OFF)
            return true;
        cancel_sleep();
        idle_since = 0;
        driver.stream_driver->wait_for_stop_scanning(stop_wait_ms);
        driver.trait->power_off();
        set_power(POWER_OFF);
        return true;
    }

    if (power == POWER_OFF) {
        driver.trait->power_on();
        set_power(POWER_ON);
    }

    if (should_stream_images() || nosleep_count > 0) {
        // The engine must stay awake.
        cancel_sleep();
        idle_since = 0;
        if (power != POWER_ON) {
            driver.trait->power_on();
            set_power(POWER_ON);
        }
        if (should_stream_images() && !streaming)
            streaming = driver.stream_driver->start_scanning(lights, exposure, start_flag);
        return true;
    }

    // Awake with nothing to do: start the idle time once.
    if (idle_since != 0)
        return true;
    const unsigned int now = MT_GetTickCount();
    idle_since = now != 0 ? now : 1;
    if (sleep_timeout != 0)
        schedule_sleep(sleep_timeout);
    return true;
}

void State_manager::go_to_sleep()
{
    lock guard(this);
    if (!is_idle() || sleep_timeout == 0)
        return;
    Scan_driver& driver = *the_scan_driver;
    driver.stream_driver->wait_for_stop_scanning(stop_wait_ms);
    driver.trait->sleep();
    set_power(POWER_ASLEEP);
}

void State_manager::schedule_sleep(uint64_t timeout)
{
    sleep_alarm.cancel();
    // Due times compare by 32-bit wrap-around, so the longest delay they can
    // express is 2^31 - 1 ms; a longer time-out waits that long.
    const uint64_t longest = 0x7FFFFFFF;
    const unsigned int due = static_cast<unsigned int>(idle_since + std::min(timeout, longest));
    sleep_alarm = monitor_base().alarm(*this, &State_manager::go_to_sleep, due, 0);
}

void State_manager::cancel_sleep()
{
    sleep_alarm.cancel();
    sleep_alarm = Alarm();
}

void State_manager::set_power(Power_state state)
{
    power = state;
    notify();
}
