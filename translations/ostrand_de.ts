<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>LoudnessPlot</name>
    <message>
        <source>Input</source>
        <translation>Eingang</translation>
    </message>
    <message>
        <source>Output</source>
        <translation>Ausgang</translation>
    </message>
    <message>
        <source>Short-term loudness</source>
        <translation>Kurzzeit-Lautheit</translation>
    </message>
    <message>
        <source>Target %1 LUFS</source>
        <translation>Ziel %1 LUFS</translation>
    </message>
    <message>
        <source>Gain</source>
        <translation>Verstärkung</translation>
    </message>
    <message>
        <source>Limiter</source>
        <translation>Limiter</translation>
    </message>
    <message>
        <source>Pause</source>
        <translation>Pause</translation>
    </message>
    <message>
        <source>a picture&apos;s name ends in .png or .svg</source>
        <translation>der Name eines Bildes endet auf .png oder .svg</translation>
    </message>
    <message>
        <source>Loudness</source>
        <translation>Lautheit</translation>
    </message>
    <message>
        <source>Loudness over time</source>
        <translation>Lautheit im Zeitverlauf</translation>
    </message>
    <message>
        <source>the drawing could not start</source>
        <translation>das Zeichnen konnte nicht beginnen</translation>
    </message>
    <message>
        <source>PNG encoding failed</source>
        <translation>die PNG-Kodierung ist fehlgeschlagen</translation>
    </message>
</context>
<context>
    <name>ReportText</name>
    <message>
        <source>gain %1 to %2 dB · limiter %3 dB</source>
        <translation>Verstärkung %1 bis %2 dB · Limiter %3 dB</translation>
    </message>
    <message>
        <source>silent</source>
        <translation>still</translation>
    </message>
    <message>
        <source>%1 · %2 leveled</source>
        <translation>%1 · %2 angeglichen</translation>
    </message>
    <message>
        <source>%1 · %2 leveled in %3</source>
        <translation>%1 · %2 angeglichen in %3</translation>
    </message>
    <message>
        <source>too short to measure</source>
        <translation>zu kurz zum Messen</translation>
    </message>
</context>
<context>
    <name>UpdateDialogs</name>
    <message>
        <source>Software Update</source>
        <translation>Software-Update</translation>
    </message>
    <message>
        <source>You’re up to date!</source>
        <translation>Ostrand ist auf dem neuesten Stand!</translation>
    </message>
    <message>
        <source>Update Error</source>
        <translation>Update-Fehler</translation>
    </message>
    <message>
        <source>&lt;b&gt;A new version of Ostrand is available!&lt;/b&gt;</source>
        <translation>&lt;b&gt;Eine neue Version von Ostrand ist verfügbar!&lt;/b&gt;</translation>
    </message>
    <message>
        <source>Ostrand %1 is now available—you have %2. Would you like to install it now?</source>
        <translation>Ostrand %1 ist jetzt verfügbar – Sie haben %2. Möchten Sie die neue Version jetzt installieren?</translation>
    </message>
    <message>
        <source>This is an important update.</source>
        <translation>Dies ist ein wichtiges Update.</translation>
    </message>
    <message>
        <source>&lt;b&gt;Release Notes:&lt;/b&gt;</source>
        <translation>&lt;b&gt;Versionshinweise:&lt;/b&gt;</translation>
    </message>
    <message>
        <source>Skip This Version</source>
        <translation>Diese Version überspringen</translation>
    </message>
    <message>
        <source>Remind Me Later</source>
        <translation>Später erinnern</translation>
    </message>
    <message>
        <source>Install</source>
        <translation>Installieren</translation>
    </message>
    <message>
        <source>Check for updates automatically?</source>
        <translation>Automatisch nach Updates suchen?</translation>
    </message>
    <message>
        <source>Should Ostrand look for a newer version once a day? You can change this in the settings at any time.</source>
        <translation>Soll Ostrand einmal am Tag nach einer neueren Version suchen? Sie können das jederzeit in den Einstellungen ändern.</translation>
    </message>
    <message>
        <source>Don’t Check</source>
        <translation>Nicht suchen</translation>
    </message>
    <message>
        <source>Check Automatically</source>
        <translation>Automatisch suchen</translation>
    </message>
    <message>
        <source>Downloading Ostrand %1…</source>
        <translation>Ostrand %1 wird geladen…</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
</context>
<context>
    <name>ostrand::AppUpdater</name>
    <message>
        <source>Updates come from your package manager.</source>
        <translation>Updates kommen über Ihre Paketverwaltung.</translation>
    </message>
    <message>
        <source>This build has no update feed, so it cannot check for updates.</source>
        <translation>Dieser Build hat keinen Update-Feed und kann daher nicht nach Updates suchen.</translation>
    </message>
    <message>
        <source>This build cannot check for updates: its update feed is not set up correctly.</source>
        <translation>Dieser Build kann nicht nach Updates suchen: Sein Update-Feed ist nicht richtig eingerichtet.</translation>
    </message>
    <message>
        <source>Ostrand %1 is the newest version available.</source>
        <translation>Ostrand %1 ist die neueste verfügbare Version.</translation>
    </message>
</context>
<context>
    <name>ostrand::Appcast</name>
    <message>
        <source>The update feed is not valid XML (line %1: %2).</source>
        <translation>Der Update-Feed ist kein gültiges XML (Zeile %1: %2).</translation>
    </message>
    <message>
        <source>The update feed has no channel.</source>
        <translation>Der Update-Feed hat keinen Kanal.</translation>
    </message>
</context>
<context>
    <name>ostrand::JobList</name>
    <message>
        <source>Jobs</source>
        <translation>Aufträge</translation>
    </message>
    <message>
        <source>Cancel or Remove</source>
        <translation>Abbrechen oder entfernen</translation>
    </message>
    <message>
        <source>Copy</source>
        <translation>Kopieren</translation>
    </message>
    <message>
        <source>Drop more files anywhere in this window</source>
        <translation>Weitere Dateien einfach in dieses Fenster ziehen</translation>
    </message>
</context>
<context>
    <name>ostrand::JobQueue</name>
    <message>
        <source>An unexpected error stopped the leveling.</source>
        <translation>Ein unerwarteter Fehler hat das Angleichen abgebrochen.</translation>
    </message>
    <message>
        <source>Leveling audio</source>
        <translation>Audio wird angeglichen</translation>
    </message>
</context>
<context>
    <name>ostrand::JobRow</name>
    <message>
        <source>File icon</source>
        <translation>Dateisymbol</translation>
    </message>
    <message>
        <source>Progress</source>
        <translation>Fortschritt</translation>
    </message>
    <message>
        <source>Status</source>
        <translation>Status</translation>
    </message>
    <message>
        <source>Details</source>
        <translation>Details</translation>
    </message>
    <message>
        <source>Warning</source>
        <translation>Warnung</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Show in File Manager</source>
        <translation>Im Dateimanager zeigen</translation>
    </message>
    <message>
        <source>Remove</source>
        <translation>Entfernen</translation>
    </message>
    <message>
        <source>Warning: %1</source>
        <translation>Warnung: %1</translation>
    </message>
</context>
<context>
    <name>ostrand::LevelingJob</name>
    <message>
        <source>Waiting…</source>
        <translation>Wartet…</translation>
    </message>
    <message>
        <source>Leveling… %1%</source>
        <translation>Wird angeglichen… %1 %</translation>
    </message>
    <message>
        <source>Analyzing… %1%</source>
        <translation>Wird analysiert… %1 %</translation>
    </message>
    <message>
        <source>Done</source>
        <translation>Fertig</translation>
    </message>
    <message>
        <source>Cancelled</source>
        <translation>Abgebrochen</translation>
    </message>
</context>
<context>
    <name>ostrand::LoudnessGraphWindow</name>
    <message>
        <source>&amp;Export…</source>
        <translation>&amp;Exportieren…</translation>
    </message>
    <message>
        <source>Loudness — %1</source>
        <translation>Lautheit — %1</translation>
    </message>
    <message>
        <source>Point at the graph to read its values</source>
        <translation>Auf die Grafik zeigen, um ihre Werte abzulesen</translation>
    </message>
    <message>
        <source>Save the graph as a PNG or SVG picture</source>
        <translation>Die Grafik als PNG- oder SVG-Bild speichern</translation>
    </message>
    <message>
        <source>Export Loudness Graph</source>
        <translation>Lautheitsverlauf exportieren</translation>
    </message>
    <message>
        <source>The graph could not be saved.</source>
        <translation>Die Grafik konnte nicht gespeichert werden.</translation>
    </message>
</context>
<context>
    <name>ostrand::LoudnessPlotView</name>
    <message>
        <source>silent</source>
        <translation>still</translation>
    </message>
    <message>
        <source>Loudness graph</source>
        <translation>Lautheitsverlauf</translation>
    </message>
    <message>
        <source>input %1</source>
        <translation>Eingang %1</translation>
    </message>
    <message>
        <source>output %1</source>
        <translation>Ausgang %1</translation>
    </message>
    <message>
        <source>gain %1 dB</source>
        <translation>Verstärkung %1 dB</translation>
    </message>
    <message>
        <source>limiter %1 dB</source>
        <translation>Limiter %1 dB</translation>
    </message>
    <message>
        <source>pause</source>
        <translation>Pause</translation>
    </message>
</context>
<context>
    <name>ostrand::MainWindow</name>
    <message>
        <source>&amp;Open…</source>
        <translation>Ö&amp;ffnen…</translation>
    </message>
    <message>
        <source>C&amp;lear Finished</source>
        <translation>&amp;Erledigte entfernen</translation>
    </message>
    <message>
        <source>Choose files to level</source>
        <translation>Dateien zum Angleichen wählen</translation>
    </message>
    <message>
        <source>Remove finished items from the list</source>
        <translation>Erledigte Einträge aus der Liste entfernen</translation>
    </message>
    <message>
        <source>Toolbar</source>
        <translation>Werkzeugleiste</translation>
    </message>
    <message>
        <source>&amp;File</source>
        <translation>&amp;Datei</translation>
    </message>
    <message>
        <source>&amp;Settings…</source>
        <translation>Ein&amp;stellungen…</translation>
    </message>
    <message>
        <source>&amp;Quit</source>
        <translation>&amp;Beenden</translation>
    </message>
    <message>
        <source>&amp;Help</source>
        <translation>&amp;Hilfe</translation>
    </message>
    <message>
        <source>&amp;About Ostrand</source>
        <translation>Ü&amp;ber Ostrand</translation>
    </message>
    <message>
        <source>Check for &amp;Updates…</source>
        <translation>Nach &amp;Updates suchen…</translation>
    </message>
    <message>
        <source>Choose video or audio files to level.</source>
        <translation>Video- oder Audiodateien zum Angleichen wählen.</translation>
    </message>
    <message>
        <source>Video and audio files (%1)</source>
        <translation>Video- und Audiodateien (%1)</translation>
    </message>
    <message>
        <source>All files (*)</source>
        <translation>Alle Dateien (*)</translation>
    </message>
    <message>
        <source>Show in File &amp;Manager</source>
        <translation>Im &amp;Dateimanager zeigen</translation>
    </message>
    <message>
        <source>&amp;Open</source>
        <translation>Ö&amp;ffnen</translation>
    </message>
    <message>
        <source>Show Loudness &amp;Graph</source>
        <translation>&amp;Lautheitsverlauf zeigen</translation>
    </message>
    <message>
        <source>&amp;Retry</source>
        <translation>&amp;Wiederholen</translation>
    </message>
    <message>
        <source>&amp;Cancel</source>
        <translation>&amp;Abbrechen</translation>
    </message>
    <message>
        <source>Re&amp;move</source>
        <translation>&amp;Entfernen</translation>
    </message>
</context>
<context>
    <name>ostrand::OstrandApp</name>
    <message>
        <source>Quit Ostrand</source>
        <translation>Ostrand beenden</translation>
    </message>
    <message>
        <source>A file is still being leveled.</source>
        <translation>Eine Datei wird noch angeglichen.</translation>
    </message>
    <message numerus="yes">
        <source>%n files are still waiting or being leveled.</source>
        <translation>
            <numerusform>%n Datei wartet noch oder wird angeglichen.</numerusform>
            <numerusform>%n Dateien warten noch oder werden angeglichen.</numerusform>
        </translation>
    </message>
    <message>
        <source>Quitting cancels them: the file in progress is not saved and waiting files are not leveled.</source>
        <translation>Beenden bricht sie ab: Die laufende Datei wird nicht gespeichert, wartende Dateien werden nicht angeglichen.</translation>
    </message>
    <message>
        <source>&amp;Quit and Cancel 1 Job</source>
        <translation>&amp;Beenden und 1 Auftrag abbrechen</translation>
    </message>
    <message numerus="yes">
        <source>&amp;Quit and Cancel %n Jobs</source>
        <translation>
            <numerusform>&amp;Beenden und %n Auftrag abbrechen</numerusform>
            <numerusform>&amp;Beenden und %n Aufträge abbrechen</numerusform>
        </translation>
    </message>
    <message>
        <source>&amp;Keep Working</source>
        <translation>&amp;Weiterarbeiten</translation>
    </message>
    <message>
        <source>About Ostrand</source>
        <translation>Über Ostrand</translation>
    </message>
    <message>
        <source>Levels the loudness of speech in audio and video files.
Version %1 (%2)</source>
        <translation>Gleicht die Lautheit von Sprache in Audio- und Videodateien an.
Version %1 (%2)</translation>
    </message>
    <message>
        <source>© 2026 The Ostrand developers. All rights reserved.
Built with Qt and FFmpeg, which are free software under the GNU LGPL.</source>
        <translation>© 2026 Die Ostrand-Entwickler. Alle Rechte vorbehalten.
Erstellt mit Qt und FFmpeg, freier Software unter der GNU LGPL.</translation>
    </message>
    <message>
        <source>About &amp;Qt</source>
        <translation>Über &amp;Qt</translation>
    </message>
</context>
<context>
    <name>ostrand::OutputDestination</name>
    <message>
        <source>Ostrand needs permission to save next to “%1”.
Click Allow to save leveled files into this folder.</source>
        <translation>Ostrand braucht die Erlaubnis, neben „%1“ zu speichern.
Klicken Sie auf „Erlauben“, um angeglichene Dateien in diesem Ordner zu speichern.</translation>
    </message>
    <message>
        <source>Choose the folder where leveled files should be saved.</source>
        <translation>Wählen Sie den Ordner, in dem angeglichene Dateien gespeichert werden sollen.</translation>
    </message>
    <message>
        <source>Save Leveled File</source>
        <translation>Angeglichene Datei speichern</translation>
    </message>
    <message>
        <source>Allow</source>
        <translation>Erlauben</translation>
    </message>
</context>
<context>
    <name>ostrand::SettingsWindow</name>
    <message>
        <source>Ostrand Settings</source>
        <translation>Ostrand-Einstellungen</translation>
    </message>
    <message>
        <source>Loudness</source>
        <translation>Lautheit</translation>
    </message>
    <message>
        <source>Target loudness</source>
        <translation>Ziellautheit</translation>
    </message>
    <message>
        <source>&amp;Target</source>
        <translation>&amp;Ziel</translation>
    </message>
    <message>
        <source>True-peak ceiling</source>
        <translation>True-Peak-Obergrenze</translation>
    </message>
    <message>
        <source>True-peak &amp;ceiling</source>
        <translation>True-Peak-&amp;Obergrenze</translation>
    </message>
    <message>
        <source>Presets</source>
        <translation>Vorgaben</translation>
    </message>
    <message>
        <source>Keep room &amp;noise down in pauses</source>
        <translation>&amp;Raumgeräusche in Pausen leise halten</translation>
    </message>
    <message>
        <source>On by default: room noise, hum or a music bed between phrases is not lifted like speech. Off runs the original plan.</source>
        <translation>Standardmäßig an: Raumgeräusche, Brummen oder Hintergrundmusik zwischen Sätzen werden nicht wie Sprache angehoben. Aus folgt dem ursprünglichen Verfahren.</translation>
    </message>
    <message>
        <source>Leveling is a slow, look-ahead gain ride that keeps speech at a steady level without pumping noise in pauses, followed by a true-peak limiter. Nothing else is changed.</source>
        <translation>Das Angleichen ist eine langsame, vorausschauende Pegelführung, die Sprache gleichmäßig laut hält, ohne Rauschen in Pausen hochzupumpen, gefolgt von einem True-Peak-Limiter. Sonst wird nichts verändert.</translation>
    </message>
    <message>
        <source>Audio</source>
        <translation>Audio</translation>
    </message>
    <message>
        <source>&amp;Mono</source>
        <translation>&amp;Mono</translation>
    </message>
    <message>
        <source>Keep as &amp;is</source>
        <translation>&amp;Beibehalten</translation>
    </message>
    <message>
        <source>Channels</source>
        <translation>Kanäle</translation>
    </message>
    <message>
        <source>Also save a &amp;WAV of the leveled audio for video files</source>
        <translation>Bei Videodateien zusätzlich eine &amp;WAV des angeglichenen Tons speichern</translation>
    </message>
    <message>
        <source>A 24-bit WAV with the same name is written next to the leveled video.</source>
        <translation>Eine 24-Bit-WAV mit demselben Namen wird neben dem angeglichenen Video gespeichert.</translation>
    </message>
    <message>
        <source>Save Location</source>
        <translation>Speicherort</translation>
    </message>
    <message>
        <source>Ne&amp;xt to the original</source>
        <translation>&amp;Neben dem Original</translation>
    </message>
    <message>
        <source>&amp;Ask every time</source>
        <translation>&amp;Jedes Mal fragen</translation>
    </message>
    <message>
        <source>Always use a &amp;folder</source>
        <translation>Immer einen Ordner &amp;verwenden</translation>
    </message>
    <message>
        <source>Save leveled files</source>
        <translation>Angeglichene Dateien speichern</translation>
    </message>
    <message>
        <source>C&amp;hoose…</source>
        <translation>&amp;Auswählen…</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>Ordner</translation>
    </message>
    <message>
        <source>&amp;Show in File Manager when finished</source>
        <translation>Wenn fertig, im &amp;Dateimanager zeigen</translation>
    </message>
    <message>
        <source>Updates</source>
        <translation>Updates</translation>
    </message>
    <message>
        <source>A&amp;utomatically check for updates</source>
        <translation>A&amp;utomatisch nach Updates suchen</translation>
    </message>
    <message>
        <source>Version %1 (%2)</source>
        <translation>Version %1 (%2)</translation>
    </message>
    <message>
        <source>Check for U&amp;pdates…</source>
        <translation>Nach U&amp;pdates suchen…</translation>
    </message>
    <message>
        <source>Choose</source>
        <translation>Auswählen</translation>
    </message>
    <message>
        <source>Audio is mixed down to a single channel before leveling.</source>
        <translation>Der Ton wird vor dem Angleichen auf einen Kanal heruntergemischt.</translation>
    </message>
    <message>
        <source>Stereo stays stereo and mono stays mono. Multiple audio tracks are mixed together.</source>
        <translation>Stereo bleibt Stereo, Mono bleibt Mono. Mehrere Tonspuren werden zusammengemischt.</translation>
    </message>
    <message>
        <source>Not chosen</source>
        <translation>Nicht gewählt</translation>
    </message>
</context>
<context>
    <name>ostrand::UpdateFeed</name>
    <message>
        <source>the server answered HTTP %1 %2 for %3</source>
        <translation>der Server antwortete mit HTTP %1 %2 für %3</translation>
    </message>
    <message>
        <source>The update feed did not arrive within %1 seconds.</source>
        <translation>Der Update-Feed kam nicht innerhalb von %1 Sekunden an.</translation>
    </message>
    <message>
        <source>The update did not download within %1 seconds.</source>
        <translation>Das Update wurde nicht innerhalb von %1 Sekunden geladen.</translation>
    </message>
    <message>
        <source>&quot;%1&quot; is not a valid address.</source>
        <translation>„%1“ ist keine gültige Adresse.</translation>
    </message>
    <message>
        <source>&quot;%1&quot; is not an https:// address.</source>
        <translation>„%1“ ist keine https://-Adresse.</translation>
    </message>
    <message>
        <source>The update feed is larger than %1.</source>
        <translation>Der Update-Feed ist größer als %1.</translation>
    </message>
    <message>
        <source>The update feed could not be read: %1.</source>
        <translation>Der Update-Feed konnte nicht gelesen werden: %1.</translation>
    </message>
    <message>
        <source>Version &quot;%1&quot; is not newer than the running %2.</source>
        <translation>Version „%1“ ist nicht neuer als die laufende %2.</translation>
    </message>
    <message>
        <source>The update feed gives no length or signature for the package.</source>
        <translation>Der Update-Feed nennt für das Paket keine Länge oder Signatur.</translation>
    </message>
    <message>
        <source>The update cannot be saved: %1</source>
        <translation>Das Update kann nicht gespeichert werden: %1</translation>
    </message>
    <message>
        <source>The download is longer than the update feed says.</source>
        <translation>Der Download ist länger, als der Update-Feed angibt.</translation>
    </message>
    <message>
        <source>The update could not be downloaded: %1.</source>
        <translation>Das Update konnte nicht geladen werden: %1.</translation>
    </message>
    <message>
        <source>The download is %1 bytes long, the update feed says %2.</source>
        <translation>Der Download ist %1 Bytes lang, der Update-Feed nennt %2.</translation>
    </message>
    <message>
        <source>The download&apos;s signature does not verify for version %1; it was deleted.</source>
        <translation>Die Signatur des Downloads für Version %1 ist ungültig; er wurde gelöscht.</translation>
    </message>
    <message>
        <source>The update feed cannot be read: %1</source>
        <translation>Der Update-Feed kann nicht gelesen werden: %1</translation>
    </message>
    <message>
        <source>The update cannot be downloaded: %1</source>
        <translation>Das Update kann nicht geladen werden: %1</translation>
    </message>
</context>
<context>
    <name>ostrand::WelcomePanel</name>
    <message>
        <source>Waveform</source>
        <translation>Wellenform</translation>
    </message>
    <message>
        <source>Drop a video or audio file</source>
        <translation>Video- oder Audiodatei hierher ziehen</translation>
    </message>
    <message>
        <source>The audio is auto-leveled and saved as a new file ending in “leveled”.
Video stays untouched.</source>
        <translation>Der Ton wird automatisch angeglichen und als neue Datei gespeichert, deren Name auf „leveled“ endet.
Das Video bleibt unverändert.</translation>
    </message>
    <message>
        <source>&amp;Choose Files…</source>
        <translation>Dateien &amp;wählen…</translation>
    </message>
</context>
</TS>
