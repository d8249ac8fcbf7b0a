// The messages dialog: showing, paging and deleting the stored messages.
#include "htmlwidget.h"
#include "messagecollector.h"
#include "messagesdialog.h"

#include "uitest.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>
#include <QTextBrowser>

#include <gtest/gtest.h>

#include <string>

namespace {

class MessagesDialogTest : public ::testing::Test {
protected:
    // A store without a file: nothing on disk is touched.
    MessagesDialogTest() : store(nullptr) { dialog.setMessageCollector(&store); }

    void add(std::string subject, std::string text)
    {
        std::string date = "0" + std::to_string(store.count() + 1) + ".02.2026 10:00";
        store.insertMessage(subject, text, date);
    }
    QString subject() const { return child<QLabel>(&dialog, "txtSubj")->text(); }
    QString body() const { return child<HTMLWidget>(&dialog, "frame")->view()->toPlainText(); }
    void click(const char* name) { QTest::mouseClick(child<QPushButton>(&dialog, name), Qt::LeftButton); }

    MessageCollector store;
    MessagesDialog dialog;
};

TEST_F(MessagesDialogTest, PagesByButtonsAndArrowKeysAndRendersBodiesAsHtml)
{
    add("First", "<b>bold</b> &amp; <i>slanted</i>");
    add("<i>Second</i>", "line one\nline   two");
    add("Third", "last");
    dialog.show();
    EXPECT_EQ(subject(), "Third");
    EXPECT_EQ(child<QLabel>(&dialog, "txtDate")->text(), "03.02.2026 10:00");
    click("btnNext");
    EXPECT_EQ(subject(), "Third");
    click("btnPrev");
    EXPECT_EQ(subject(), "<i>Second</i>") << "subjects are plain text";
    EXPECT_EQ(body(), "line one line two");
    click("btnPrev");
    click("btnPrev");
    EXPECT_EQ(body(), "bold & slanted");

    // A shortcut presses its button briefly, as a click would; the keys
    // work also while the body has the focus.
    ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog));
    child<QPushButton>(&dialog, "buttonOk")->setFocus();
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Right);
    EXPECT_TRUE(waitFor([this] { return subject() == "<i>Second</i>"; }));
    child<HTMLWidget>(&dialog, "frame")->view()->setFocus();
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Left);
    EXPECT_TRUE(waitFor([this] { return subject() == "First"; }));
}

TEST_F(MessagesDialogTest, DeletingShowsTheNextAndTheLastDeletionCloses)
{
    for (const char* name : {"A", "B", "C"})
        add(name, name);
    const int result = execDialog(dialog, [this] {
        click("btnPrev");
        click("btnDelete");
        EXPECT_EQ(subject(), "C");
        click("btnDelete");
        EXPECT_EQ(subject(), "A");
        click("btnDelete");
    });
    EXPECT_EQ(result, QDialog::Accepted);
    EXPECT_TRUE(store.empty());
}

TEST_F(MessagesDialogTest, AnEmptyStoreClosesTheDialogAtOnce)
{
    QSignalSpy accepted(&dialog, &QDialog::accepted);
    EXPECT_EQ(execDialog(dialog, [] {}), QDialog::Accepted);
    EXPECT_EQ(accepted.count(), 1);
    dialog.show();
    EXPECT_TRUE(waitFor([this] { return !dialog.isVisible(); }));
    EXPECT_EQ(dialog.result(), QDialog::Accepted);

    add("Kept", "k");
    EXPECT_EQ(execDialog(dialog, [this] { click("buttonOk"); }), QDialog::Accepted);
    EXPECT_EQ(store.count(), 1u);
}

TEST_F(MessagesDialogTest, RemoteResourcesInABodyAreNotFetched)
{
    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost));
    const std::string base = "http://127.0.0.1:" + std::to_string(server.serverPort());
    add("Offer", "<link rel=\"stylesheet\" href=\"" + base + "/s.css\">"
                 "<p style=\"background-image: url(" + base + "/bg.png)\">See</p>"
                 "<img src=\"" + base + "/x.png\">");
    dialog.show();
    ASSERT_EQ(subject(), "Offer");
    child<HTMLWidget>(&dialog, "frame")->view()->viewport()->repaint();
    runEventLoopFor(300);
    EXPECT_FALSE(server.hasPendingConnections());
}

} // namespace
