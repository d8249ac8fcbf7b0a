<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>AboutDialog</name>
    <message>
        <source>About...</source>
        <translation>Über...</translation>
    </message>
    <message>
        <source>Orvane ZEL5 Tray</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Version 5.1.11</source>
        <translation>Version 5.1.11</translation>
    </message>
    <message>
        <source>(c) 2026 Orvane Networks</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>www.orvane.example</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
</context>
<context>
    <name>MessagesDialog</name>
    <message>
        <source>Messages</source>
        <translation>Nachrichten</translation>
    </message>
    <message>
        <source>Left</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Right</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>&amp;Delete</source>
        <translation>&amp;Löschen</translation>
    </message>
    <message>
        <source>Alt+D</source>
        <translation>Alt+L</translation>
    </message>
    <message>
        <source>&amp;Close</source>
        <translation>&amp;Schließen</translation>
    </message>
    <message>
        <source>Alt+C</source>
        <translation>Alt+S</translation>
    </message>
</context>
<context>
    <name>SettingsDialog</name>
    <message>
        <source>Settings</source>
        <translation>Einstellungen</translation>
    </message>
    <message>
        <source>Network settings</source>
        <translation>Netzwerk</translation>
    </message>
    <message>
        <source>Server address:</source>
        <translation>Serveradresse:</translation>
    </message>
    <message>
        <source>Server Port:</source>
        <translation>Serverport:</translation>
    </message>
    <message>
        <source>Ddddd; </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Login:</source>
        <translation>Benutzername:</translation>
    </message>
    <message>
        <source>Password:</source>
        <translation>Passwort:</translation>
    </message>
    <message>
        <source>Refresh Rate:</source>
        <translation>Aktualisierung:</translation>
    </message>
    <message>
        <source> sec.</source>
        <translation> s</translation>
    </message>
    <message>
        <source>Web Server Address:</source>
        <translation>Adresse des Webservers:</translation>
    </message>
    <message>
        <source>Other settings</source>
        <translation>Weitere Einstellungen</translation>
    </message>
    <message>
        <source>Turn o&amp;n internet on start</source>
        <translation>Internet beim Start ei&amp;nschalten</translation>
    </message>
    <message>
        <source>Alt+N</source>
        <translation>Alt+N</translation>
    </message>
    <message>
        <source>Turn o&amp;ff internet on exit</source>
        <translation>Internet beim Beenden a&amp;usschalten</translation>
    </message>
    <message>
        <source>Alt+F</source>
        <translation>Alt+U</translation>
    </message>
    <message>
        <source>&amp;Start on logon</source>
        <translation>Beim Anmelden &amp;starten</translation>
    </message>
    <message>
        <source>Alt+S</source>
        <translation>Alt+S</translation>
    </message>
    <message>
        <source>Save settings</source>
        <translation>Einstellungen speichern</translation>
    </message>
    <message>
        <source>&amp;OK</source>
        <translation>&amp;OK</translation>
    </message>
    <message>
        <source>&amp;Cancel</source>
        <translation>&amp;Abbrechen</translation>
    </message>
</context>
<context>
    <name>ZEL5Icon</name>
    <message>
        <source>Switch Internet On/Off</source>
        <translation>Internet ein-/ausschalten</translation>
    </message>
    <message>
        <source>Switch Internet Off</source>
        <translation>Internet ausschalten</translation>
    </message>
    <message>
        <source>Switch Internet On</source>
        <translation>Internet einschalten</translation>
    </message>
    <message>
        <source>Traffic Class</source>
        <translation>Verkehrsklasse</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>Menge</translation>
    </message>
    <message>
        <source>Service: </source>
        <translation>Dienst: </translation>
    </message>
    <message>
        <source>Traffic</source>
        <translation>Verkehr</translation>
    </message>
    <message>
        <source>ZEL @ Web</source>
        <translation>ZEL im Web</translation>
    </message>
    <message>
        <source>Messages</source>
        <translation>Nachrichten</translation>
    </message>
    <message>
        <source>Configure ZEL5 Tray...</source>
        <translation>ZEL5 Tray einrichten...</translation>
    </message>
    <message>
        <source>About</source>
        <translation>Über</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
</context>
<context>
    <name>ZEL5TrayApp</name>
    <message>
        <source>Balance: %1</source>
        <translation>Guthaben: %1</translation>
    </message>
    <message>
        <source>/cgi-bin/zel5/aaa5</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
