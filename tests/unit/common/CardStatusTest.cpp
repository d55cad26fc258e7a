#include "CardStatus.h"

#include <QTest>

class CardStatusTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void every_published_value_has_a_name_of_its_own();
    void values_outside_the_enumerations_have_no_name();
    void a_state_is_found_by_its_name();
    void other_names_are_no_states();
};

void CardStatusTest::every_published_value_has_a_name_of_its_own()
{
    const auto namesUpTo = [](QString (*name)(int), int last) {
        QStringList names;
        for (int value = 0; value <= last; ++value) {
            names.append(name(value));
        }
        return names;
    };
    QCOMPARE(namesUpTo(stateName, 8),
             (QStringList{"unknown", "no-card", "not-mountable", "mounted", "unmounted",
                          "closing-files", "mounting", "unmounting", "corrupted"}));
    QCOMPARE(namesUpTo(transitionName, 9),
             (QStringList{"none", "card-inserted", "card-removed", "eject-requested",
                          "mount-succeeded", "mount-failed", "card-corrupt", "unmount-failed",
                          "files-closed", "timed-out"}));
    QCOMPARE(
        namesUpTo(memStateName, 7),
        (QStringList{"unknown", "no-card", "not-usable", "up-to-20-percent", "up-to-40-percent",
                     "up-to-60-percent", "up-to-80-percent", "more-than-80-percent"}));
    QCOMPARE(stateNames(), namesUpTo(stateName, 8));
}

void CardStatusTest::values_outside_the_enumerations_have_no_name()
{
    QCOMPARE(stateName(-1) + stateName(9), QString());
    QCOMPARE(transitionName(-1) + transitionName(10), QString());
    QCOMPARE(memStateName(-1) + memStateName(8), QString());
}

void CardStatusTest::a_state_is_found_by_its_name()
{
    for (int value = 0; value <= 8; ++value) {
        const auto state = stateNamed(stateName(value));
        QVERIFY(state);
        QCOMPARE(static_cast<int>(*state), value);
    }
}

void CardStatusTest::other_names_are_no_states()
{
    for (const char* const name : {"", "Mounted", "mounted ", "3", "card-inserted"}) {
        QVERIFY2(!stateNamed(name), name);
    }
}

QTEST_APPLESS_MAIN(CardStatusTest)
#include "CardStatusTest.moc"
