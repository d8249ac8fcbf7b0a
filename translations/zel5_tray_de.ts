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
    <name>AccountOverview</name>
    <message>
        <source>Account</source>
        <translation>Konto</translation>
    </message>
    <message>
        <source>Traffic</source>
        <translation type="unfinished">Verkehr</translation>
    </message>
    <message>
        <source>No traffic report yet</source>
        <translation>Noch kein Verkehrsbericht</translation>
    </message>
    <message>
        <source>Balance, last 90 days</source>
        <translation>Guthaben der letzten 90 Tage</translation>
    </message>
    <message>
        <source>No balance history yet</source>
        <translation>Noch kein Guthabenverlauf</translation>
    </message>
    <message numerus="yes">
        <source>At this rate the balance lasts about %n days</source>
        <translation>
            <numerusform>Bei diesem Verbrauch reicht das Guthaben etwa %n Tag</numerusform>
            <numerusform>Bei diesem Verbrauch reicht das Guthaben etwa %n Tage</numerusform>
        </translation>
    </message>
    <message>
        <source>No account data yet</source>
        <translation>Noch keine Kontodaten</translation>
    </message>
    <message>
        <source>Offline — last known values</source>
        <translation>Offline – zuletzt bekannte Werte</translation>
    </message>
    <message>
        <source>Internet: on</source>
        <translation>Internet: an</translation>
    </message>
    <message>
        <source>Internet: off</source>
        <translation>Internet: aus</translation>
    </message>
    <message>
        <source>Updated %1</source>
        <translation>Stand %1</translation>
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
    <message>
        <source>Enter the port</source>
        <translation>Port eingeben</translation>
    </message>
    <message>
        <source>From 1 to 65535</source>
        <translation>Von 1 bis 65535</translation>
    </message>
    <message>
        <source>Enter the address</source>
        <translation>Adresse eingeben</translation>
    </message>
    <message>
        <source>Enter the login</source>
        <translation>Benutzernamen eingeben</translation>
    </message>
    <message>
        <source>Show desktop notifications</source>
        <translation>Desktop-Benachrichtigungen anzeigen</translation>
    </message>
    <message>
        <source>Warn when the balance is below:</source>
        <translation>Warnen, wenn das Guthaben unter:</translation>
    </message>
    <message>
        <source>no warning</source>
        <translation>keine Warnung</translation>
    </message>
</context>
<context>
    <name>TrafficChart</name>
    <message>
        <source>Downloaded</source>
        <translation>Heruntergeladen</translation>
    </message>
    <message>
        <source>Prepaid</source>
        <translation>Vorausbezahlt</translation>
    </message>
    <message>
        <source>Old prepaid</source>
        <translation>Alt vorausbezahlt</translation>
    </message>
    <message>
        <source>Class %1</source>
        <translation>Klasse %1</translation>
    </message>
    <message>
        <source>%1 + %2 old</source>
        <translation>%1 + %2 alt</translation>
    </message>
    <message>
        <source>%1 of %2</source>
        <translation>%1 von %2</translation>
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
    <message>
        <source>Cannot open the web cabinet</source>
        <translation>Das Web-Kundenkonto lässt sich nicht öffnen</translation>
    </message>
    <message>
        <source>No program on this desktop opens web addresses. The cabinet is at %1</source>
        <translation>Kein Programm auf diesem Desktop öffnet Webadressen. Das Kundenkonto ist unter %1</translation>
    </message>
    <message>
        <source>Login refused</source>
        <translation>Anmeldung abgelehnt</translation>
    </message>
    <message>
        <source>The billing server refused the login. Check the login and password in the settings.</source>
        <translation>Der Abrechnungsserver hat die Anmeldung abgelehnt. Prüfen Sie Benutzername und Passwort in den Einstellungen.</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation type="unfinished">Einstellungen</translation>
    </message>
    <message>
        <source>No network</source>
        <translation>Kein Netzwerk</translation>
    </message>
    <message>
        <source>Connecting…</source>
        <translation>Verbinde…</translation>
    </message>
    <message>
        <source>Settings incomplete</source>
        <translation>Einstellungen unvollständig</translation>
    </message>
    <message>
        <source>Login refused: check the login and password in the settings</source>
        <translation>Anmeldung abgelehnt: Benutzername und Passwort in den Einstellungen prüfen</translation>
    </message>
    <message>
        <source>Not a billing server at %1:%2</source>
        <translation>Kein Abrechnungsserver unter %1:%2</translation>
    </message>
    <message>
        <source>Server not reachable: %1:%2</source>
        <translation>Server nicht erreichbar: %1:%2</translation>
    </message>
    <message>
        <source>Click to try again</source>
        <translation>Klicken für einen neuen Versuch</translation>
    </message>
    <message numerus="yes">
        <source>%n new messages</source>
        <translation>
            <numerusform>%n neue Nachricht</numerusform>
            <numerusform>%n neue Nachrichten</numerusform>
        </translation>
    </message>
    <message>
        <source>Show</source>
        <translation>Anzeigen</translation>
    </message>
    <message>
        <source>Low balance</source>
        <translation>Niedriges Guthaben</translation>
    </message>
    <message>
        <source>The tray icon needs a system tray</source>
        <translation>Das Symbol braucht einen Systembereich</translation>
    </message>
    <message>
        <source>This desktop shows no tray icons. Orvane ZEL5 Tray keeps running and its icon appears as soon as a system tray does. On GNOME, install and enable an AppIndicator/StatusNotifier extension, such as &quot;AppIndicator and KStatusNotifierItem Support&quot;.</source>
        <translation>Dieser Desktop zeigt keine Symbole im Systembereich. Orvane ZEL5 Tray läuft weiter, und sein Symbol erscheint, sobald es einen Systembereich gibt. Installieren und aktivieren Sie unter GNOME eine AppIndicator/StatusNotifier-Erweiterung, etwa &quot;AppIndicator and KStatusNotifierItem Support&quot;.</translation>
    </message>
</context>
</TS>
